// SPDX-License-Identifier: Apache-2.0
// The agent's own entities, published beside those of the library: its progress, the state of its tables, and
// the settings of its traces.
#pragma once

#include <functional>
#include <string>

#include "apps/vantreld/validator.h"
#include "ostra/entity.h"
#include "producer/geometry.h"
#include "shoal/table.h"

namespace Vantreld {

// The agent's state: `waiting` for a table, `adopting` what hardware holds from an earlier run, `serving` a
// table, or `withdrawing` its entries, of which `left` acknowledged ones are left. And what it was started
// with: its geometry, when, and where its trace is.
class Progress : public Ostra::Entity {
 public:
  class Notifiee : public Ostra::NotifieeOf<Progress const> {
   public:
    virtual void onState() {}
    virtual void onLeft() {}
  };
  explicit Progress(Vantrel::Geometry const& geometry);
  std::string const& state() const { return state_; }
  void stateIs(std::string const& state) { scalarIs("state", state_, state, &Notifiee::onState); }
  U64 left() const { return left_; }
  void leftIs(U64 left) { scalarIs("left", left_, left, &Notifiee::onLeft); }

  U64 pid() const { return pid_; }
  U64 started() const { return started_; }  // seconds since 1970
  std::string traceFile() const;            // empty: none is written
  U32 size() const { return geometry_.size; }
  std::string engine() const { return geometry_.engine(); }
  U32 prioGrpShift() const { return geometry_.prioGrpShift; }
  U32 maxPartitions() const { return geometry_.maxPartitions; }

  static Ostra::TypeInfo const& staticType();
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

 private:
  Vantrel::Geometry const geometry_;
  U64 const pid_;
  U64 const started_;
  std::string state_ = "waiting";
  U64 left_ = 0;
};

// One table: its path, its number of records, the damage found in it, and a problem of its file. Each value
// is computed when it is read.
class TableReport : public Ostra::Described {
 public:
  TableReport(Ostra::Ptr<Shoal::TableBase const> table, std::function<U64()> size,
              std::function<std::string()> problem)
      : table_(std::move(table)), size_(std::move(size)), problem_(std::move(problem)) {}
  std::string const& path() const { return table_->name(); }
  U64 records() const { return size_(); }
  U64 corruptions() const { return table_->corruptions(); }
  std::string const& lastCorruption() const { return table_->lastCorruption(); }
  std::string problem() const { return problem_(); }

  static Ostra::TypeInfo const& staticType();
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

 private:
  Ostra::Ptr<Shoal::TableBase const> const table_;
  std::function<U64()> const size_;
  std::function<std::string()> const problem_;
};

// The configuration table, and its records that are kept from the engine.
class ConfigReport : public TableReport {
 public:
  ConfigReport(Ostra::Ptr<Shoal::TableBase const> table, std::function<U64()> size,
               std::function<std::string()> problem, std::shared_ptr<Validator const> validator)
      : TableReport(std::move(table), std::move(size), std::move(problem)),
        validator_(std::move(validator)) {}
  U64 refusedRecords() const { return validator_->refusedCount(); }
  Validator::Reasons const& refused() const { return validator_->refused(); }

  static Ostra::TypeInfo const& staticType();
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

 private:
  std::shared_ptr<Validator const> const validator_;
};

// The facility trace's levels, in the format of the TRACE environment variable, and how many trace files of
// dead agents are kept.
class TraceControl : public Ostra::Entity {
 public:
  class Notifiee : public Ostra::NotifieeOf<TraceControl const> {
   public:
    virtual void onSettings() {}
    virtual void onKeep() {}
  };
  TraceControl();
  std::string const& settings() const { return settings_; }
  // Throws Ostra::AttributeException for a part that is none.
  void settingsIs(std::string const& settings);
  U32 keep() const { return keep_; }
  // Throws Ostra::AttributeException for a number below 1 or above 1000.
  void keepIs(U32 keep);

  static Ostra::TypeInfo const& staticType();
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

 private:
  std::string settings_;
  U32 keep_;
};

}  // namespace Vantreld
