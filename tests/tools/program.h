// SPDX-License-Identifier: Apache-2.0
// The program from outside, in a folder of its own.
#ifndef KELMTROVA_TESTS_TOOLS_PROGRAM_H
#define KELMTROVA_TESTS_TOOLS_PROGRAM_H

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

struct Outcome {
  int exitCode;
  std::string out, err;
};

class Program : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "kelmtrova-test-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folder = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(folder); }

  // The same surroundings whoever runs the tests.
  Outcome shell(const std::string &line, const std::string &input = "") {
    write(".input", input);
    const std::string command = "cd '" + folder.string() +
                                "' && export XDG_DATA_HOME=\"$PWD\" PATH='" KELM_BUILD_DIR
                                "/bin':\"$PATH\" TERM=xterm && unset KELMTROVA_TOKEN KELMTROVA_PIN NO_COLOR && { " +
                                line + "; } <.input >out 2>err";
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read("out"), read("err")};
  }
  // Runs "kelmtrova WORDS", the words as a shell takes them.
  Outcome run(const std::string &words, const std::string &input = "") { return shell("kelmtrova " + words, input); }
  void succeed(const std::string &words) {
    const Outcome outcome = run(words);
    ASSERT_EQ(outcome.exitCode, 0) << words << '\n' << outcome.err;
  }
  void write(const std::string &name, const std::string &bytes) {
    std::ofstream(folder / name, std::ios::binary) << bytes;
  }
  std::string read(const std::string &name) {
    std::ifstream file(folder / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  // The samples of a .npy file.
  std::string raw(const std::string &npy) {
    const std::string bytes = read(npy);
    return bytes.substr(10 + static_cast<unsigned char>(bytes[8]) + 256u * static_cast<unsigned char>(bytes[9]));
  }

  std::filesystem::path folder;
};

#endif
