// What the `verify` commands share: finding files, telling what is wrong with them, totals and the exit code.
#ifndef ORLITH_FILE_VERIFIER_H
#define ORLITH_FILE_VERIFIER_H

#include <cstdint>
#include <string>
#include <vector>

#include "orlith/json.h"
#include "orlith/nnt_reader.h"
#include "orlith/progress.h"
#include "orlith/session.h"

class FileVerifier {
 public:
  // `noun` is what a file holds many of, as in "record".
  FileVerifier(Session &session, std::string noun) : session_(session), noun_(std::move(noun)) {}
  virtual ~FileVerifier() = default;
  FileVerifier(const FileVerifier &) = delete;
  FileVerifier &operator=(const FileVerifier &) = delete;

  // Checks the files among the paths and, all levels down, those in folders that belong. The exit code.
  int run(const std::vector<std::string> &paths);

 protected:
  // What was found in a file that could be read to its end.
  struct Findings {
    uint64_t items = 0, damaged_items = 0;
    std::vector<std::string> damage;  // for people; empty for a sound file
    Json json;                        // of the file, from "file" and "ok" on
  };

  // Whether a file found in a folder is of the kind; a path that was given is checked in any case.
  virtual bool belongs(const std::string &path) const = 0;
  // Checks a file, advances `progress` by its size, pauses it, and calls tell() or tell_problem(). After an interrupt
  // it calls neither: nothing is known of the rest.
  virtual void verify(const std::string &path, uint64_t size_bytes, Progress &progress) = 0;

  void tell(const std::string &path, Findings findings);
  // A file that cannot be read, or is none of the kind (exit_damaged).
  void tell_problem(const std::string &path, const Problem &problem);

  Session &session_;

 private:
  struct Found {
    std::string path;
    bool is_folder;
    uint64_t size_bytes;
  };
  struct Totals {
    uint64_t files = 0, damaged_files = 0, items = 0, damaged_items = 0, skipped = 0;
  };

  void find(const std::string &path);
  void find_below(const std::string &folder);
  std::vector<Found> list(const std::string &folder);
  int verify_all();
  void add_json(Json json);
  void print_totals();
  void worsen(int code) { code_ = worse_exit(code_, code); }

  std::string noun_;
  std::vector<Found> files_;
  Totals totals_;
  Json files_json_ = Json::array();
  int code_ = exit_fine;
};

#endif
