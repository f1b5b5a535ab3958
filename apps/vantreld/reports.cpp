// SPDX-License-Identifier: Apache-2.0
#include "apps/vantreld/reports.h"

#include <fmt/format.h>

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <string_view>

#include "lumelog/lumelog.h"
#include "ostra/exception.h"
#include "ostra/type_info.h"
#include "vantrel/core/trace.h"

namespace Vantreld {

namespace {
std::string agentKnows(Progress const&) { return "the agent knows itself how far it is"; }
}  // namespace

Progress::Progress(Vantrel::Geometry const& geometry)
    : Entity("agent"),
      geometry_(geometry),
      pid_(static_cast<U64>(::getpid())),
      started_(static_cast<U64>(std::time(nullptr))) {}

std::string Progress::traceFile() const { return Vantrel::lg ? Vantrel::lg->path() : ""; }

Ostra::TypeInfo const& Progress::staticType() {
  static Ostra::TypeInfo const type = Ostra::TypeInfo::of<Progress>("Vantreld::Progress")
                                          .attribute("state", &Progress::state, &Progress::stateIs)
                                          .refusedBecause(&agentKnows)
                                          .attribute("left", &Progress::left, &Progress::leftIs)
                                          .refusedBecause(&agentKnows)
                                          .attribute("size", &Progress::size)
                                          .attribute("engine", &Progress::engine)
                                          .attribute("prioGrpShift", &Progress::prioGrpShift)
                                          .attribute("maxPartitions", &Progress::maxPartitions)
                                          .attribute("pid", &Progress::pid)
                                          .attribute("started", &Progress::started)
                                          .attribute("traceFile", &Progress::traceFile);
  return type;
}

Ostra::TypeInfo const& TableReport::staticType() {
  using T = TableReport;
  static Ostra::TypeInfo const type = Ostra::TypeInfo::of<T>("Vantreld::TableReport")
                                          .attribute("path", &T::path)
                                          .attribute("records", &T::records)
                                          .attribute("corruptions", &T::corruptions)
                                          .attribute("lastCorruption", &T::lastCorruption)
                                          .attribute("problem", &T::problem);
  return type;
}

Ostra::TypeInfo const& ConfigReport::staticType() {
  using C = ConfigReport;
  static Ostra::TypeInfo const type =
      Ostra::TypeInfo::of<C>("Vantreld::ConfigReport", &TableReport::staticType())
          .attribute("refusedRecords", &C::refusedRecords)
          .collection("refused", &C::refused);
  return type;
}

TraceControl::TraceControl() : Entity("trace"), keep_(Vantrel::traceKeep()) {
  if (char const* const settings = std::getenv("TRACE")) settings_ = settings;
}

namespace {

// What the TRACE variable would be passed over for with a line on stderr, that the writer never sees.
void requireReadable(std::string_view part) {
  auto const slash = part.rfind('/');
  bool const level = slash != std::string_view::npos && slash != 0 && slash + 2 == part.size() &&
                     part.back() >= '0' && part.back() <= '9';
  if (!level && !part.starts_with('>'))
    throw Ostra::AttributeException(
        fmt::format("settings: expected NAME/LEVEL with a level from 0 to 9, or >FILE, found \"{}\"", part));
}

}  // namespace

void TraceControl::settingsIs(std::string const& settings) {
  for (std::string_view rest = settings; !rest.empty();) {
    std::size_t const end = std::min(rest.find_first_of(",; \t\n"), rest.size());
    if (end > 0) requireReadable(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  Vantrel::traceSettingIs(settings.c_str());
  scalarIs("settings", settings_, settings, &Notifiee::onSettings);
}

// Zero is refused: it would remove a crashed agent's trace file when its successor starts.
void TraceControl::keepIs(U32 keep) {
  constexpr U32 most = 1000;
  if (keep == 0 || keep > most)
    throw Ostra::AttributeException(
        fmt::format("keep: expected a number of trace files from 1 to {}, got {}", most, keep));
  Vantrel::traceKeepIs(keep);
  scalarIs("keep", keep_, keep, &Notifiee::onKeep);
}

Ostra::TypeInfo const& TraceControl::staticType() {
  static Ostra::TypeInfo const type =
      Ostra::TypeInfo::of<TraceControl>("Vantreld::TraceControl")
          .attribute("settings", &TraceControl::settings, &TraceControl::settingsIs)
          .attribute("keep", &TraceControl::keep, &TraceControl::keepIs);
  return type;
}

}  // namespace Vantreld
