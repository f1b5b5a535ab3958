// SPDX-License-Identifier: Apache-2.0
#include "apps/vantreld/reports.h"

#include <cstdlib>

#include "vantrel/core/trace.h"

namespace Vantreld {

Ostra::TypeInfo const& TableReport::staticType() {
  using T = TableReport;
  static Ostra::TypeInfo const type = Ostra::TypeInfo::of<T>("Vantreld::TableReport")
                                          .attribute("path", &T::path)
                                          .attribute("records", &T::records)
                                          .attribute("corruptions", &T::corruptions)
                                          .attribute("lastCorruption", &T::lastCorruption);
  return type;
}

TraceControl::TraceControl() : Entity("trace") {
  if (char const* const settings = std::getenv("TRACE")) settings_ = settings;
}

void TraceControl::settingsIs(std::string const& settings) {
  Vantrel::traceSettingIs(settings.c_str());
  scalarIs("settings", settings_, settings, &Notifiee::onSettings);
}

Ostra::TypeInfo const& TraceControl::staticType() {
  static Ostra::TypeInfo const type =
      Ostra::TypeInfo::of<TraceControl>("Vantreld::TraceControl")
          .attribute("settings", &TraceControl::settings, &TraceControl::settingsIs);
  return type;
}

}  // namespace Vantreld
