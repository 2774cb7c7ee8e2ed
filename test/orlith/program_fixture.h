// Runs the built program through a shell, in a folder of the test's own.
#ifndef TEST_ORLITH_PROGRAM_FIXTURE_H
#define TEST_ORLITH_PROGRAM_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "test/orlith/index_model.h"
#include "test/orlith/nnt_model.h"
#include "test/orlith/pack_model.h"
#include "test/orlith/series_model.h"
#include "test/support/temp_dir.h"

struct ProgramTest : testing::Test {
  struct Result {
    int code;  // as the shell tells it
    std::string out, err;
  };

  // The files that the examples in the help rely on (see orlith/cli.h).
  ProgramTest() {
    folder.write("cpu.nnt", sample_nnt_file());
    folder.write("damaged.nnt", damaged_nnt_file());
    folder.write("packed.cfssz", packed_file(sample_nnt_file()));
    std::filesystem::copy_file(ORLITH_FIXTURES "/cluster.xml", folder.file("cluster.xml"));
    std::string lines;
    for (int i = 0; i < 20; ++i)
      lines += "M\t" + std::to_string(1700000000 + i * 30) +
               ".000\t1b4e28ba-2fa1-11d2-883f-0016d3cca427\tcpu|ST[core:1]\tL\t" + std::to_string(i) + "\n";
    folder.write("lines.txt", lines);
    folder.write("orlith.conf", "<orlith/>\n");
    const std::string check = "1b4e28ba-2fa1-11d2-883f-0016d3cca427";
    std::filesystem::create_directories(folder.file("rollups/300/" + check));
    folder.write("rollups/300/" + check + "/Y3B1fFNUW2NvcmU6MV0=.nnt", sample_nnt_file());
    folder.write("metrics.index", one_metric_index(check + "-cpu|ST[core:1]", "core:1", 300));
    // 1 once and 2 twice.
    folder.write("histograms.txt",
                 "H\t1700000000\t1b4e28ba-2fa1-11d2-883f-0016d3cca427\tlatency\taBACCsABCgI=\n");
    folder.write("latency.hss", sample_series_file());
    folder.write("broken.hss", damaged_series_file());
  }

  // The program's own folder comes first in PATH; nothing outside the test's folder is written.
  Result run(const std::string &shell_line, const std::string &shell = "sh") {
    const std::string programs = std::filesystem::path(ORLITH_BINARY).parent_path().string();
    folder.write("line.sh", shell_line + "\n");
    const std::string command = "cd '" + folder.path() +
                                "' && HOME=\"$PWD\" XDG_STATE_HOME=\"$PWD/state\" PATH='" + programs +
                                "':\"$PATH\" LC_ALL=C.UTF-8 NO_COLOR= " + kBounded + shell +
                                " line.sh >line.out 2>line.err </dev/null";
    const int status = system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), folder.read("line.out"),
            folder.read("line.err")};
  }
  static bool has(const char *program) {
    return system((std::string("command -v ") + program + " >/dev/null 2>&1").c_str()) == 0;
  }

  TempDir folder;

  // Nothing may wait for ever.
  const std::string kBounded = "timeout 100 ";
};

#endif
