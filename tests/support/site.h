// SPDX-License-Identifier: Apache-2.0
// A directory with tables, its agent and the command, as processes: what a producer and an operator meet.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "hw/acl/rule.h"
#include "shoal/reader_table.h"
#include "tests/apps/acl_generator.h"
#include "tests/support/agent.h"
#include "vantrel/core/tables.h"

namespace TestSupport {

struct Ended {
  int status;
  std::string out;
  std::string err;
};

class Site : public testing::Test {
 protected:
  Site() { std::filesystem::create_directories(tables()); }

  std::string tables() const { return dir / "tables"; }

  void start(std::vector<std::string> const& flags = {}) {
    agent = startAgent(dir, tables(), flags, "agent" + std::to_string(++started));
  }
  // The exit status.
  int end(int signal) {
    agent->signal(signal);
    return agent->wait();
  }

  std::unique_ptr<Process> begin(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), VANTREL_BIN_DIR "/vantrel");
    arguments.insert(arguments.end(), {"--dir", tables()});
    std::string const name = "command" + std::to_string(++started);
    return std::make_unique<Process>(arguments, dir / (name + ".out"), dir / (name + ".err"));
  }
  Ended run(std::vector<std::string> arguments) {
    auto const process = begin(std::move(arguments));
    int const status = process->wait();
    return {status, process->out(), process->err()};
  }
  // What a verb that succeeds prints, without the newline at its end.
  std::string said(std::vector<std::string> arguments) {
    Ended ended = run(std::move(arguments));
    EXPECT_EQ(ended.status, 0) << ended.err;
    if (ended.out.ends_with('\n')) ended.out.pop_back();
    return ended.out;
  }
  std::string hardware(std::string const& attribute) { return said({"attr", "get", "hardware", attribute}); }

  std::vector<std::string> loading(U64 seed, std::size_t rules, std::vector<std::string> const& more = {}) {
    std::string const file = dir / ("rules" + std::to_string(++started));
    std::ofstream(file, std::ios::binary) << Acl::textOf(Acl::generateRules(seed, rules));
    std::vector<std::string> arguments{"load", file, "--wait"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }
  std::vector<std::string> putting(U64 key, std::vector<std::string> const& more = {}) {
    std::string const n = std::to_string(key);
    std::vector<std::string> arguments{"put", "--key", n, "--pg", "0", "--prio", n, "--ti", n, "--wait"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }

  // By position: the keys that are wanted there, and those that are in hardware.
  std::map<U32, U64> wanted() const {
    std::map<U32, U64> row;
    Shoal::ReaderTable<Vantrel::EntryConfig> const table(tables() + "/config.shoal");
    for (auto place = table.first(); place; place = table.next(*place))
      row[table.entry(place->key).tableIndex(Vantrel::TableKey(0))] = place->key.value();
    return row;
  }
  std::map<U32, U64> held() {
    std::map<U32, U64> row;
    std::istringstream lines(hardware("positions"));
    U32 ti = 0;
    for (U64 key = 0; lines >> ti >> key;) row[ti] = key;
    return row;
  }
  U64 unacknowledged() const {
    Shoal::ReaderTable<Vantrel::EntryConfig> const configs(tables() + "/config.shoal");
    Shoal::ReaderTable<Vantrel::EntryStatus> const statuses(tables() + "/status.shoal");
    U64 count = 0;
    for (auto place = configs.first(); place; place = configs.next(*place))
      count += statuses.entry(place->key).opId() != configs.entry(place->key).opId();
    return count;
  }
  // Everything arrives, and nothing else is in hardware.
  void expectSettled() {
    EXPECT_TRUE(eventually([this] { return unacknowledged() == 0; })) << agent->err();
    EXPECT_EQ(held(), wanted());
    EXPECT_EQ(hardware("violations"), "0");
  }

  TempDir dir;
  std::unique_ptr<Process> agent;
  int started = 0;
};

}  // namespace TestSupport
