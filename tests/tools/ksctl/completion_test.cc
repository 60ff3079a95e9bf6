// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Completions, in the shells that they are for.
#include <gmock/gmock.h>

#include <fstream>

#include "ksctl.h"
#include "temporary_folder.h"

namespace {

using ks_test::ksctl;
using ks_test::ProgramRun;
using ks_test::run_program;
using ks_test::TemporaryFolder;
using testing::HasSubstr;
using testing::Not;

// The script of `shell`, in a file.
std::string script_in(const TemporaryFolder &folder, const std::string &shell) {
  const std::string path = folder.path() + "/_ksctl";
  std::ofstream(path) << ksctl("/nowhere/socket", {"completion", shell}).output;
  return path;
}

// What the shell offers behind each of the words, the last of which is incomplete.
using Complete = std::string(const std::string &script, const std::vector<std::string> &words);

std::string in_bash(const std::string &script, const std::vector<std::string> &words) {
  std::vector<std::string> all{"/bin/bash", "-c",
                               "source \"$1\"; shift; COMP_WORDS=(ksctl \"$@\"); COMP_CWORD=$#; _ksctl; "
                               "printf '%s\\n' \"${COMPREPLY[@]}\"",
                               "bash", script};
  all.insert(all.end(), words.begin(), words.end());
  const ProgramRun run = run_program(all);
  return run.output + run.errors;
}

// The functions of zsh's completion are stood in for: each prints what it is given.
std::string in_zsh(const std::string &script, const std::vector<std::string> &words) {
  std::vector<std::string> all{
      "/usr/bin/zsh",
      "-f",
      "-c",
      "_describe() { print -l -- \"${(@P)2}\" }; _files() { print -l files $@ }; _message() { :; }\n"
      "compadd() { shift; print -l -- $@ }\n"
      "script=$1; shift; words=(ksctl \"$@\"); CURRENT=$#words; source $script",
      "zsh",
      script};
  all.insert(all.end(), words.begin(), words.end());
  const ProgramRun run = run_program(all);
  return run.output + run.errors;
}

std::string in_fish(const std::string &script, const std::vector<std::string> &words) {
  std::string line = "ksctl";
  for (const std::string &word : words) line += " " + word;
  const ProgramRun run =
      run_program({"/usr/bin/fish", "--no-config", "-c", "source " + script + "; complete -C '" + line + "'"});
  return run.output + run.errors;
}

struct Shell {
  const char *name;
  const char *path;
  Complete *complete;
};

class KsctlCompletion : public testing::TestWithParam<Shell> {};

TEST_P(KsctlCompletion, OffersWhatMayComeNext) {
  if (access(GetParam().path, X_OK) != 0) GTEST_SKIP() << GetParam().path << " isn't installed";
  const TemporaryFolder folder;
  const std::string script = script_in(folder, GetParam().name);
  const auto offered = [&](const std::vector<std::string> &words) { return GetParam().complete(script, words); };

  EXPECT_THAT(offered({""}), testing::AllOf(HasSubstr("status"), HasSubstr("secret"), Not(HasSubstr("rename"))));
  EXPECT_THAT(offered({"secret", ""}), testing::AllOf(HasSubstr("put"), HasSubstr("rename"), Not(HasSubstr("status"))));
  EXPECT_THAT(offered({"secret", "put", "--"}), testing::AllOf(HasSubstr("secret-fd"), HasSubstr("json")));
  EXPECT_THAT(offered({"secret", "put", "wifi", "--"}), HasSubstr("replace"));
  EXPECT_THAT(offered({"secret", "list", "--"}), testing::AllOf(HasSubstr("socket"), Not(HasSubstr("replace"))));
  EXPECT_THAT(offered({"--socket", "secret", ""}), HasSubstr("status"));  // a value is no command
  EXPECT_THAT(offered({"completion", ""}), testing::AllOf(HasSubstr("bash"), HasSubstr("fish")));
}

INSTANTIATE_TEST_SUITE_P(Shells, KsctlCompletion,
                         testing::Values(Shell{"bash", "/bin/bash", in_bash}, Shell{"zsh", "/usr/bin/zsh", in_zsh},
                                         Shell{"fish", "/usr/bin/fish", in_fish}),
                         [](const auto &shell) { return std::string(shell.param.name); });

TEST(KsctlCompletionScript, IsForNoOtherShell) {
  EXPECT_EQ(ksctl("/nowhere/socket", {"completion", "csh"}).status, 2);
}

}  // namespace
