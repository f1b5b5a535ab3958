// SPDX-License-Identifier: Apache-2.0
#include "ostra/trace.h"

#include <fmt/format.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace Ostra {
namespace {

std::shared_ptr<spdlog::logger> makeLogger(spdlog::sink_ptr sink) {
  auto logger = std::make_shared<spdlog::logger>("trace", std::move(sink));
  logger->set_level(spdlog::level::trace);
  logger->set_pattern("%Y-%m-%dT%H:%M:%S.%f %v");
  logger->flush_on(spdlog::level::trace);
  return logger;
}

}  // namespace

TraceHandle::TraceHandle(std::string name) : name_(std::move(name)) {
  TraceManager& manager = TraceManager::instance();
  manager.handles_.push_back(this);
  manager.apply(*this);
}

TraceHandle::~TraceHandle() { std::erase(TraceManager::instance().handles_, this); }

void TraceHandle::writeLine(int level, std::string const& line) const {
  TraceManager::instance().logger_->log(spdlog::level::info, "{}/{} {}", name_, level, line);
}

TraceManager& TraceManager::instance() {
  static TraceManager* const manager = new TraceManager;  // outlives every handle
  return *manager;
}

TraceManager::TraceManager() : logger_(makeLogger(std::make_shared<spdlog::sinks::stderr_sink_st>())) {
  readEnvironment();
}

void TraceManager::readEnvironment() {
  char const* settings = std::getenv("TRACE");
  settingsAre(settings ? settings : "");
}

void TraceManager::settingsAre(std::string_view settings) {
  parts_.clear();
  while (!settings.empty()) {
    std::size_t const end = std::min(settings.find_first_of(", \t\n"), settings.size());
    std::string_view const part = settings.substr(0, end);
    settings.remove_prefix(std::min(end + 1, settings.size()));
    if (part.empty()) continue;
    std::size_t const slash = part.rfind('/');
    if (slash == std::string_view::npos || slash == 0 || slash + 2 != part.size() || part.back() < '0' ||
        part.back() > '9') {
      fmt::print(stderr, "TRACE: cannot read \"{}\": expected NAME/LEVEL with a level from 0 to 9\n", part);
      continue;
    }
    std::string_view name = part.substr(0, slash);
    bool const prefix = name.ends_with('*');
    if (prefix) name.remove_suffix(1);
    parts_.push_back({std::string(name), prefix, part.back() - '0'});
  }
  for (TraceHandle* handle : handles_) apply(*handle);
}

void TraceManager::apply(TraceHandle& handle) const {
  int level = 0;
  for (Part const& part : parts_)
    if (part.prefix ? handle.name().starts_with(part.name) : handle.name() == part.name) level = part.level;
  handle.levelIs(level);
}

void TraceManager::loggerIs(std::shared_ptr<spdlog::logger> logger) {
  logger_ = logger ? std::move(logger) : makeLogger(std::make_shared<spdlog::sinks::stderr_sink_st>());
}

void TraceManager::fileIs(std::string const& path) {
  loggerIs(makeLogger(std::make_shared<spdlog::sinks::basic_file_sink_st>(path)));
}

}  // namespace Ostra
