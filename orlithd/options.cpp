#include "orlithd/options.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "orlith/exit_code.h"
#include "orlith/near_miss.h"
#include "orlith/text.h"
#include "orlith/version.h"
#include "ruxo/conf.h"

namespace {

constexpr const char *kExamples =
    R"(Examples:
  orlithd --topology cluster.xml --me 1b4e28ba-2fa1-11d2-883f-0016d3cca427 --data node-1 --listen 127.0.0.1:0
      serves the folder node-1 as that node of the cluster, on a free port
  orlithd --config orlithd.xml --threads 4
      the same from a configuration file, on four loop threads
)";

void say(std::string_view message) {
  fmt::print(stderr, "orlithd: {}\n", message);
}

int say_usage(std::string_view message) {
  say(message);
  fmt::print(stderr, "See 'orlithd --help'.\n");
  return exit_usage;
}

std::vector<std::string> option_names(const CLI::App &app) {
  std::vector<std::string> names;
  for (const CLI::Option *option : app.get_options())
    for (const std::string &name : option->get_lnames()) names.push_back("--" + name);
  return names;
}

std::string about_leftover(const CLI::App &app, const std::string &word) {
  if (word.size() < 2 || word.front() != '-') return fmt::format("unexpected argument {}", in_quotes(word));
  const std::string name = word.substr(0, word.find('='));
  const std::string near = nearest(name, option_names(app));
  return fmt::format("unknown option {}{}", in_quotes(name),
                     near.empty() ? "" : fmt::format("; did you mean '{}'?", near));
}

void add_options(CLI::App &app, Options *options) {
  app.add_option("--topology", options->topology, "the document of the cluster's topology")
      ->type_name("FILE");
  app.add_option("--me", options->me, "the id of this node in the topology")->type_name("UUID");
  app.add_option("--data", options->data,
                 "the data folder, for this process alone; created where it is missing")
      ->type_name("DIR");
  app.add_option("--listen", options->listen,
                 "where to listen, port 0 being any free one (default: the node's address and API port)")
      ->type_name("ADDR:PORT");
  app.add_option("--config", options->config, "a configuration file; the command line outweighs it")
      ->type_name("FILE");
  app.add_option("--tls-cert", options->tls_certificate, "answer over TLS with this certificate chain (PEM)")
      ->type_name("FILE");
  app.add_option("--tls-key", options->tls_key, "the certificate's key (PEM)")->type_name("FILE");
  app.add_option("--tls-ca", options->tls_authorities, "the authorities of the peers' certificates (PEM)")
      ->type_name("FILE");
  app.add_option("--threads", options->threads, "loop threads (default: 2)")
      ->type_name("COUNT")
      ->check(CLI::Range(1, 256));
  app.add_option("--grace", options->grace_s, "how long requests may go on at the end (default: 10)")
      ->type_name("SECONDS")
      ->check(CLI::Range(0, 86400));
  app.add_option("--log", options->log_file, "append log lines to this file (default: standard error)")
      ->type_name("FILE");
  app.add_flag("--log-json", options->log_json, "write log lines as JSON");
}

// Files in the configuration are named from the folder that it stands in.
std::string beside(const std::string &config, const std::string &path) {
  const size_t slash = config.rfind('/');
  if (path.empty() || path.front() == '/' || slash == std::string::npos) return path;
  return config.substr(0, slash + 1) + path;
}

struct FromFile {
  const CLI::App &app;
  const std::string &config;
  bool valid = true;

  bool given(const char *option) const { return app.count(option) > 0; }

  void text(const char *option, const char *xpath, std::string *value, bool is_path = false) const {
    if (given(option)) return;
    char *found = ruxo_conf_get_string(nullptr, xpath, nullptr);
    if (found == nullptr) return;
    *value = is_path ? beside(config, found) : found;
    free(found);
  }
  void number(const char *option, const char *xpath, uint64_t low, uint64_t high, uint64_t *value) {
    if (option != nullptr && given(option)) return;
    uint64_t found = *value;
    const ruxo_conf_result_t result = ruxo_conf_get_uint64(nullptr, xpath, &found);
    if (result == RUXO_CONF_ABSENT) return;
    if (result == RUXO_CONF_FOUND && found >= low && found <= high) {
      *value = found;
      return;
    }
    say(fmt::format("{}: {}: expected a whole number from {} to {}", escaped(config), xpath, low, high));
    valid = false;
  }
  void small(const char *option, const char *xpath, uint64_t low, uint64_t high, unsigned *value) {
    uint64_t wide = *value;
    number(option, xpath, low, high, &wide);
    *value = static_cast<unsigned>(wide);
  }
};

std::optional<int> read_config(const CLI::App &app, Options *options) {
  char *err = nullptr;
  if (ruxo_conf_load(options->config.c_str(), &err) != 0) {
    say(escaped(err == nullptr ? "out of memory" : err));
    free(err);
    return exit_failed;
  }
  FromFile file{app, options->config};
  file.text("--topology", "/orlith/topology/@file", &options->topology, true);
  file.text("--me", "/orlith/node/@id", &options->me);
  file.text("--data", "/orlith/node/@data", &options->data, true);
  file.text("--listen", "/orlith/node/@listen", &options->listen);
  file.small("--threads", "/orlith/node/@threads", 1, 256, &options->threads);
  file.small("--grace", "/orlith/node/@grace", 0, 86400, &options->grace_s);
  file.text("--tls-cert", "/orlith/tls/@certificate", &options->tls_certificate, true);
  file.text("--tls-key", "/orlith/tls/@key", &options->tls_key, true);
  file.text("--tls-ca", "/orlith/tls/@authorities", &options->tls_authorities, true);
  file.text("--log", "/orlith/log/@file", &options->log_file, true);
  if (!file.given("--log-json") &&
      ruxo_conf_get_boolean(nullptr, "/orlith/log/@json", &options->log_json) == RUXO_CONF_INVALID)
    file.valid = false;  // told on the log
  file.small(nullptr, "/orlith/peers/@connect_timeout_ms", 1, 3600000, &options->peer_connect_timeout_ms);
  file.small(nullptr, "/orlith/peers/@timeout_ms", 1, 86400000, &options->peer_timeout_ms);
  file.number(nullptr, "/orlith/upload/@max_bytes", 1, UINT64_MAX, &options->max_upload_bytes);
  file.number(nullptr, "/orlith/upload/@min_free_bytes", 0, UINT64_MAX, &options->min_free_bytes);
  if (!file.valid) return exit_damaged;
  return std::nullopt;
}

std::optional<int> check(const Options &options) {
  if (options.topology.empty()) return say_usage("--topology is needed");
  if (options.me.empty()) return say_usage("--me is needed");
  if (options.data.empty()) return say_usage("--data is needed");
  if (options.tls_certificate.empty() != options.tls_key.empty())
    return say_usage("--tls-cert and --tls-key are given together");
  if (!options.listen.empty() && !parse_listen_address(options.listen))
    return say_usage(fmt::format("--listen is {}, expected ADDR:PORT, such as 127.0.0.1:8113 or [::1]:8113",
                                 in_quotes(options.listen)));
  return std::nullopt;
}

}  // namespace

std::optional<int> parse_options(int argc, char **argv, Options *options) {
  CLI::App app("a node of an orlith cluster: serves its topology, its rollup files and uploads over HTTP",
               "orlithd");
  app.set_help_flag("-h,--help", "show this help");
  app.set_version_flag("--version", std::string("orlithd ") + orlith_version(), "show the version");
  app.footer(kExamples);
  add_options(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp &) {
    fmt::print("{}", app.help());
    return fflush(stdout) == 0 ? exit_fine : exit_failed;
  } catch (const CLI::CallForVersion &version) {
    fmt::print("{}\n", version.what());
    return fflush(stdout) == 0 ? exit_fine : exit_failed;
  } catch (const CLI::ParseError &error) {
    const std::vector<std::string> leftover = app.remaining(false);
    return say_usage(leftover.empty() ? escaped(error.what()) : about_leftover(app, leftover.front()));
  }
  if (!options->config.empty())
    if (const std::optional<int> code = read_config(app, options)) return code;
  return check(*options);
}

std::optional<ListenAddress> parse_listen_address(const std::string &text) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos) return std::nullopt;
  ListenAddress result{text.substr(0, colon), 0};
  const bool bracketed =
      result.address.size() > 2 && result.address.front() == '[' && result.address.back() == ']';
  if (bracketed) result.address = result.address.substr(1, result.address.size() - 2);
  unsigned char binary[sizeof(struct in6_addr)];
  if (inet_pton(bracketed ? AF_INET6 : AF_INET, result.address.c_str(), binary) != 1) return std::nullopt;
  const char *const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data() + colon + 1, end, result.port);
  if (error != std::errc() || stop != end) return std::nullopt;
  return result;
}
