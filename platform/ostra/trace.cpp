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

TraceHandle::~TraceHandle() {
  if (level_ != unused) std::erase(TraceManager::instance().handles_, this);
}

int TraceHandle::firstUse() {
  TraceManager& manager = TraceManager::instance();
  manager.handles_.push_back(this);
  return level_ = manager.levelOf(name_);
}

void TraceHandle::levelIs(int level) {
  if (level_ == unused) firstUse();
  level_ = std::clamp(level, 0, 9);
}

void TraceHandle::writeLine(int level, std::string const& line) const {
  TraceManager const& manager = TraceManager::instance();
  (manager.file_ ? manager.file_ : manager.logger_)->log(spdlog::level::info, "{}/{} {}", name_, level, line);
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
  file_.reset();
  while (!settings.empty()) {
    std::size_t const end = std::min(settings.find_first_of(",; \t\n"), settings.size());
    if (end > 0) readPart(settings.substr(0, end));
    settings.remove_prefix(std::min(end + 1, settings.size()));
  }
  for (TraceHandle* handle : handles_) handle->levelIs(levelOf(handle->name()));
}

void TraceManager::readPart(std::string_view part) {
  if (part.front() == '>') return readFile(std::string(part.substr(1)));
  std::size_t const slash = part.rfind('/');
  if (slash == std::string_view::npos || slash == 0 || slash + 2 != part.size() || part.back() < '0' ||
      part.back() > '9') {
    fmt::print(stderr, "TRACE: cannot read \"{}\": expected NAME/LEVEL with a level from 0 to 9, or >FILE\n",
               part);
    return;
  }
  std::string_view name = part.substr(0, slash);
  bool const prefix = name.ends_with('*');
  if (prefix) name.remove_suffix(1);
  parts_.push_back({std::string(name), prefix, part.back() - '0'});
}

void TraceManager::readFile(std::string const& path) {
  try {
    file_ = makeLogger(std::make_shared<spdlog::sinks::basic_file_sink_st>(path));
  } catch (spdlog::spdlog_ex const& e) {
    fmt::print(stderr, "TRACE: cannot write to \"{}\": {}\n", path, e.what());
  }
}

int TraceManager::levelOf(std::string_view name) const {
  int level = 0;
  for (Part const& part : parts_)
    if (part.prefix ? name.starts_with(part.name) : name == part.name) level = part.level;
  return level;
}

void TraceManager::loggerIs(std::shared_ptr<spdlog::logger> logger) {
  logger_ = logger ? std::move(logger) : makeLogger(std::make_shared<spdlog::sinks::stderr_sink_st>());
}

}  // namespace Ostra
