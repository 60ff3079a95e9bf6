// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ksd: the keystore service. The command line is read here; what it asks for happens in daemon.cc.
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <map>

#include "config/layers.h"
#include "config/places.h"
#include "server/daemon.h"

namespace {

constexpr int kWrongUse = 2;

int check(const ksd::server::Options &options) {
  const ksd::config::ParsedConfig parsed = ksd::server::load(options);
  const std::vector<ksd::config::ConfigProblem> problems = ksd::config::find_problems(parsed);
  for (const ksd::config::ConfigProblem &problem : problems) {
    std::fprintf(stderr, "%s\n", ksd::config::describe(parsed.config.file, problem).c_str());
  }
  if (!problems.empty()) return 1;
  const std::vector<std::string> files =
      options.config.empty() ? ksd::config::find_layers(ksd::config::standard_folders()) : std::vector{options.config};
  if (const auto needed = ksd::config::what_else_it_needs(parsed.config)) {
    std::fprintf(stderr, "%s: %s\n", parsed.config.file.c_str(), needed->c_str());
  }
  for (const std::string &file : files) std::printf("%s: valid\n", file.c_str());
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  ksd::server::Options options;
  bool only_check = false;

  CLI::App app("ksd keeps secrets and PACs and computes with keys that never leave it.");
  app.add_option("--config", options.config,
                 fmt::format("Configuration file, read instead of ksd.toml and those of ksd.toml.d in {}",
                             fmt::join(ksd::config::standard_folders(), ", ")))
      ->option_text("FILE");
  app.add_option("--socket", options.socket, "Socket to listen on, instead of the configured one")->option_text("PATH");
  app.add_option("--vault", options.vault, "Vault file, instead of the configured one")->option_text("FILE");
  app.add_option("--master-key-file", options.master_key_file, "File of the master key, made at first start")
      ->option_text("FILE");
  app.add_option("--passphrase-fd", options.passphrase_fd,
                 "Descriptor of the passphrase that the master key is sealed under; a line is read from it")
      ->check(CLI::Range(0, 1 << 20))
      ->option_text("FD");
  app.add_flag("--accept-loss", options.accept_loss,
               "Start also from a vault that lacks acknowledged changes, after copying its files aside");
  app.add_flag("--allow-root", options.allow_root,
               "Run as root, which is refused otherwise: nothing here needs its rights");
  app.add_flag("--check", only_check,
               "Check the configuration and the places that it names, say what is wrong, and end");
  app.add_option("--log-level", options.log_level, "debug, info, warning or error, instead of the configured one")
      ->option_text("{debug,info,warning,error}")
      ->check(CLI::IsMember({"debug", "info", "warning", "error"}));
  const std::map<std::string, ksd::LogFormat> formats{
      {"auto", ksd::LogFormat::kAuto}, {"plain", ksd::LogFormat::kPlain}, {"journal", ksd::LogFormat::kJournal}};
  app.add_option("--log-format", options.log_format, "auto, plain (with times) or journal (with priorities)")
      ->option_text("{auto,plain,journal}")
      ->transform(CLI::Transformer(formats));
  app.set_version_flag("--version", "ksd " KSD_VERSION);
  app.footer(
      "Signals: HUP reloads the configuration, USR1 logs the counters, TERM ends after the last commit.\n"
      "Exit status: 0 ended as asked, 1 failed (the log says why), 2 wrong use.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? 0 : kWrongUse;
  }
  if (geteuid() == 0 && !options.allow_root && !only_check) {
    std::fprintf(stderr,
                 "ksd: refuses to run as root, whose rights it doesn't need; start it as another user, as the unit "
                 "ksd.service does, or with --allow-root\n");
    return kWrongUse;
  }
  return only_check ? check(options) : ksd::server::run_daemon(options);
}
