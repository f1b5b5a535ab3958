// SPDX-License-Identifier: Apache-2.0
// What the facility traces write while the object lives, as text without times.
#pragma once

#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include <memory>
#include <sstream>
#include <string>
#include <utility>

#include "ostra/trace.h"

namespace TestSupport {

class FacilityText {
 public:
  FacilityText() {
    auto logger = std::make_shared<spdlog::logger>(
        "test", std::make_shared<spdlog::sinks::ostream_sink_st>(out_, true));
    logger->set_pattern("%v");
    logger->set_level(spdlog::level::trace);
    Ostra::TraceManager::instance().loggerIs(std::move(logger));
  }
  ~FacilityText() {
    Ostra::TraceManager::instance().settingsAre("");
    Ostra::TraceManager::instance().loggerIs(nullptr);
  }
  FacilityText(FacilityText const&) = delete;
  FacilityText& operator=(FacilityText const&) = delete;

  std::string str() const { return out_.str(); }
  // What was written since the last call.
  std::string take() {
    std::string text = out_.str();
    out_.str("");
    return text;
  }

 private:
  std::ostringstream out_;
};

}  // namespace TestSupport
