// What orlithd is told at its start: the command line, and a configuration file for what that leaves out.
#ifndef ORLITHD_OPTIONS_H
#define ORLITHD_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>

struct Options {
  std::string config;
  std::string topology;  // the file of the topology's document
  std::string me;        // this node's id
  std::string data;      // the data folder
  std::string listen;    // "ADDR:PORT"; empty: the node's own address and API port in the topology
  std::string tls_certificate;
  std::string tls_key;
  std::string tls_authorities;  // whom peers' certificates must come from
  std::string log_file;         // empty: standard error
  bool log_json = false;
  unsigned threads = 2;
  unsigned grace_s = 10;
  unsigned peer_connect_timeout_ms = 1000;
  unsigned peer_timeout_ms = 60000;
  uint64_t max_upload_bytes = uint64_t{1} << 30;
  uint64_t min_free_bytes = uint64_t{16} << 20;
};

// An address to listen on.
struct ListenAddress {
  std::string address;  // IPv4 or IPv6, without brackets
  uint16_t port = 0;
};

// Reads the command line, and then the configuration file that it names. Returns an exit code when the process is to
// end (after the help, the version, or a message on standard error); nothing when *options is complete.
std::optional<int> parse_options(int argc, char **argv, Options *options);

// "127.0.0.1:8113", "[::1]:8113"; nothing for other text.
std::optional<ListenAddress> parse_listen_address(const std::string &text);

#endif
