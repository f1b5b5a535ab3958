// SPDX-License-Identifier: Apache-2.0
// Recorder: a hardware client that writes down what it is asked for, into a list or as lines into a stream.
//
//   Hw::Recorder hardware("hw");                     hardware.calls()
//   Hw::Recorder hardware("hw", &std::cout);         add key:5 opId:65537 hdl:7 pg:1 prio:10 ti:1000
//
// Invariants: every call is recorded once, in the order of arrival. Nothing is acknowledged.
// Ownership: refers to the stream, which must outlive it. There is no status table.
// Threading: the agent's event loop.
// Cost: the list keeps a copy of each record; a stream keeps nothing.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "vantrel/engine/vantrel_helper.h"

namespace Hw {

enum class Operation { Add, Delete, DeleteDeadlock, Move, Update, DelAck, DelStatus, NoopAck, Flush };

// Of a status operation the record holds the key and the OpId, of a flush nothing.
struct Call {
  Operation operation;
  Vantrel::EntryConfig entry;
  friend bool operator==(Call const&, Call const&) = default;
};

VANTREL_API char const* toText(Operation operation);
VANTREL_API std::ostream& operator<<(std::ostream& out, Call const& call);

class VANTREL_API Recorder : public Vantrel::VantrelHelper {
 public:
  explicit Recorder(std::string name, std::ostream* out = nullptr);

  // Empty when the calls go to a stream.
  std::vector<Call> const& calls() const { return calls_; }
  void callsDelAll() { calls_.clear(); }

  void addEntry(Vantrel::EntryConfig const& entry) override;
  void deleteEntry(Vantrel::EntryConfig const& entry) override;
  void deleteEntryDeadlock(Vantrel::EntryConfig const& entry) override;
  void moveEntry(Vantrel::EntryConfig const& entry) override;
  void updateEntry(Vantrel::EntryConfig const& entry) override;
  void delAck(Vantrel::EntryKey const& key) override;
  void delStatus(Vantrel::EntryKey const& key) override;
  void noopAck(Vantrel::EntryKey const& key, Vantrel::OpId const& opId) override;
  void flush() override;

 private:
  void record(Operation operation, Vantrel::EntryConfig const& entry);
  void recordStatus(Operation operation, Vantrel::EntryKey const& key, Vantrel::OpId const& opId);

  std::ostream* const out_;
  std::vector<Call> calls_;
};

}  // namespace Hw
