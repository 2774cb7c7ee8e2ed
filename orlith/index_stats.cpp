// `orlith index stats`: what an index is made of.
#include <fmt/format.h>

#include "orlith/cli.h"
#include "orlith/histogram_line.h"
#include "orlith/index_output.h"
#include "orlith/table.h"

namespace {

struct Options {
  std::string file;
};

struct Named {
  const char *name;
  const TreeShape *shape;
  uint64_t value_bytes;
};

Json tree_json(const Named &tree) {
  Json nodes = Json::array();
  for (size_t kind = 0; kind < TreeShape::kRooms.size(); ++kind) {
    Json entry = Json::object();
    entry.set("children", TreeShape::kRooms[kind])
        .set("count", tree.shape->nodes[kind])
        .set("bytes", tree.shape->node_bytes[kind]);
    nodes.add(std::move(entry));
  }
  Json leaves = Json::object();
  leaves.set("count", tree.shape->leaves).set("bytes", tree.shape->leaf_bytes);
  Json json = Json::object();
  json.set("keys", tree.shape->leaves)
      .set("key_bytes", tree.shape->key_bytes)
      .set("depth", tree.shape->depth);
  json.set("nodes", std::move(nodes)).set("leaves", std::move(leaves)).set("value_bytes", tree.value_bytes);
  return json;
}

void show_json(const std::string &file, const IndexDirectory &directory, const Named (&trees)[2],
               Session &session) {
  Json json = Json::object();
  json.set("file", file).set("bytes", directory.file_bytes).set("metrics", directory.metric_count);
  json.set("tags", directory.tag_count).set("tagged", directory.tagged_count);
  Json shapes = Json::object();
  for (const Named &tree : trees) shapes.set(tree.name, tree_json(tree));
  json.set("trees", std::move(shapes));
  session.out << json.text() << "\n";
}

void show_text(const std::string &file, const IndexDirectory &directory, const Named (&trees)[2],
               Session &session) {
  session.out << fmt::format(
      "{}: {} metrics, {} tags, {} on average a metric; {}\n\n", escaped(file),
      human_count(directory.metric_count), human_count(directory.tag_count),
      shortest(directory.metric_count == 0
                   ? 0.0
                   : static_cast<double>(directory.tagged_count * 10 / directory.metric_count) / 10),
      human_bytes(directory.file_bytes));
  Table table({{"part", "part"},
               {"metrics", "metrics", Align::right},
               {"metrics_bytes", "bytes", Align::right},
               {"tags", "tags", Align::right},
               {"tags_bytes", "bytes", Align::right}});
  const TreeShape &metrics = *trees[0].shape;
  const TreeShape &tags = *trees[1].shape;
  for (size_t kind = 0; kind < TreeShape::kRooms.size(); ++kind)
    table.add(fmt::format("nodes of {}", TreeShape::kRooms[kind]), metrics.nodes[kind],
              metrics.node_bytes[kind], tags.nodes[kind], tags.node_bytes[kind]);
  table.add("leaves", metrics.leaves, metrics.leaf_bytes, tags.leaves, tags.leaf_bytes);
  table.add("keys in them", metrics.leaves, metrics.key_bytes, tags.leaves, tags.key_bytes);
  table.add("files, lists", "", trees[0].value_bytes, "", trees[1].value_bytes);
  table.add("depth", metrics.depth, "", tags.depth, "");
  session.out << table.text(session);
}

int run(const Options &options, Session &session) {
  start_library();
  int code = exit_fine;
  const auto index = open_index(options.file, session, &code);
  if (index == nullptr) return code;
  IndexStats stats;
  if (const std::string fault = index->stats(&stats); !fault.empty())
    return say_damage(options.file, fault, session);
  const Named trees[2] = {{"metrics", &stats.metrics, stats.files_bytes},
                          {"tags", &stats.tags, stats.list_bytes}};
  session.settings.json ? show_json(options.file, index->directory(), trees, session)
                        : show_text(options.file, index->directory(), trees, session);
  return exit_fine;
}

Run configure(CLI::App &app) {
  auto options = std::make_shared<Options>();
  app.add_option("FILE", options->file, "the index")->type_name("FILE")->required();
  return [options](Session &session) { return run(*options, session); };
}

}  // namespace

extern const Command index_stats_command = {
    .name = "index stats",
    .summary = "show what an index is made of",
    .description =
        "Counts the nodes of both trees by how many children they have room for, with their bytes; leaves "
        "and the keys "
        "in them; what metrics and tags refer to. The depth is that of the deepest leaf, in nodes and the "
        "leaf.\n\n"
        "Reads the whole index; exit code 2 when it is damaged.",
    .examples = {{{"orlith index stats metrics.index", "both trees side by side"},
                  {"orlith index stats --json metrics.index", "the same as JSON"}}},
    .formats = format_json,
    .configure = configure,
};
