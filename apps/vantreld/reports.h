// SPDX-License-Identifier: Apache-2.0
// What the agent lets an operator see besides the library's own entities: the state of a table, and what is
// traced and kept.
#pragma once

#include "ostra/entity.h"
#include "shoal/table.h"

namespace Vantreld {

// One table: its path, how many records it has, and what damage was found in it. Read on request.
class TableReport : public Ostra::Described {
 public:
  explicit TableReport(Ostra::Ptr<Shoal::TableBase const> table, std::function<U64()> size)
      : table_(std::move(table)), size_(std::move(size)) {}
  std::string const& path() const { return table_->name(); }
  U64 records() const { return size_(); }
  U64 corruptions() const { return table_->corruptions(); }
  std::string const& lastCorruption() const { return table_->lastCorruption(); }

  static Ostra::TypeInfo const& staticType();
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

 private:
  Ostra::Ptr<Shoal::TableBase const> const table_;
  std::function<U64()> const size_;
};

// The facility trace's levels, in the format of the TRACE environment variable, and how many trace files of
// dead agents stay.
class TraceControl : public Ostra::Entity {
 public:
  class Notifiee : public Ostra::NotifieeOf<TraceControl const> {
   public:
    virtual void onSettings() {}
    virtual void onKeep() {}
  };
  TraceControl();
  std::string const& settings() const { return settings_; }
  void settingsIs(std::string const& settings);
  U32 keep() const { return keep_; }
  // Throws Ostra::AttributeException for a number that nobody means.
  void keepIs(U32 keep);

  static Ostra::TypeInfo const& staticType();
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

 private:
  std::string settings_;
  U32 keep_;
};

}  // namespace Vantreld
