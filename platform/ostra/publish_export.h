// SPDX-License-Identifier: Apache-2.0
// One exported object and its log of changes, from which any number of watchers are told, each at its own
// pace.
//
//   log:    | 17 k4 | 18 k9 | 19 k4 | 20 version |      a change is the name of what changed, never its value
//                     ^ Cursor A            ^ Cursor B      and k4 at 17 is passed over: 19 tells it
//
// A cursor walks the collections (the snapshot), then follows the log from where it stood when the walk
// began, and reads each value when it is told: the newest value once. A cursor that the log left behind
// begins again with a fresh snapshot; one that is still walking walks to the end first, so that every member
// is told now and then however fast they change. Scalars are not in the log: they are told at once, except
// those that their type wants told last, which wait until the cursor has told everything else.
//
// Invariants: the log holds at most 16384 changes, or where the object has many members an eighth as many
//   changes as members, up to 65536; the object is watched only while a cursor follows or reads.
// Ownership: holds a reference to the object; cursors belong to the peers and leave before they go.
// Threading: the agent's event loop.
// Cost: a change costs one hash-map step however many watch; a change that nobody follows costs what an
//   unwatched entity's does. produce() and readOn() stop at the end of the turn, one line of at most 256
//   members late. The last one to leave frees the log.
#pragma once

#include <boost/unordered/unordered_flat_map.hpp>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "ostra/clock.h"
#include "ostra/entity.h"
#include "ostra/type_info.h"

namespace Ostra {

// What one call of dispatch() may do.
struct Turn {
  double end;   // on the framework's clock
  bool mayAct;  // requests that write, delete and invoke are served
  bool over() const { return now() >= end; }
};

class Export final : private AttributeWatcher {
 public:
  // One watcher's place.
  struct Cursor {
    enum class Stage { Begin, Walk, Follow };
    Stage stage = Stage::Begin;
    std::size_t attribute = 0;  // Walk: which one
    MemberCursor member;        // Walk: where in it
    U64 members = 0;            // Walk: told so far
    bool behind = false;        // Walk: the log does not reach back to its beginning, or it only reads
    U64 position = 0;           // the next change to tell
    U64 lapEnd = 0;             // a change that comes again before this may be passed over
    U64 toldAtOnce = 0;         // the newest change of a scalar that was told, of those told at once
    U64 toldLast = 0;           // the same of those told last
    bool live = false;          // was told that its snapshot is complete
  };

  // `wake` is called when there is something new to tell.
  Export(std::string name, Ptr<Described> object, std::function<void()> wake);

  std::string const& name() const { return name_; }
  Ptr<Described> const& object() const { return object_; }
  TypeInfo const& type() const { return object_->typeInfo(); }
  // Tells its changes, so that it can be mounted.
  bool watchable() const { return entity_ != nullptr; }
  // As JSON: the entity in the list of all, and the list of its attributes.
  std::string const& listed() const { return listed_; }
  std::string attributes() const;

  // Appends lines until `out` holds about `upTo` bytes, the turn is over or nothing is left to tell.
  void produce(Cursor& cursor, std::string& out, std::size_t upTo, Turn const& turn);
  bool hasNews(Cursor const& cursor) const;
  // Walks one collection only, `cursor` must be a fresh one: at most 256 members are put into `members` at a
  // time, until cursor.member.done.
  void read(Cursor& cursor, Attribute const& collection);
  void readOn(Cursor& cursor, Members& members);
  // Must be called for each cursor that was given to the others. It may begin again.
  void leave(Cursor& cursor);

 private:
  struct Change {
    std::size_t attribute;
    Value key;
    bool operator==(Change const&) const = default;
  };
  struct ChangeHash {
    std::size_t operator()(Change const& c) const { return std::hash<Value>()(c.key) * 31 + c.attribute; }
  };

  void onAttribute(std::string_view name) override { changed(name, Value()); }
  void onMember(std::string_view name, Value const& key) override { changed(name, key); }
  void changed(std::string_view name, Value const& key);
  void scalarChanged(std::size_t attribute);
  void memberChanged(Change change);
  void makeRoom();
  void forget(int atMost);

  void follows(Cursor& cursor, bool reads);
  void walk(Cursor& cursor, std::string& out, std::size_t upTo, Turn const& turn);
  void walked(Cursor& cursor);
  void follow(Cursor& cursor, std::string& out, std::size_t upTo, Turn const& turn);
  void tellScalars(bool last, U64& told, std::string& out);
  void tellRun(Cursor& cursor, std::string& out);
  bool comesAgain(Cursor const& cursor, Change const& change) const;
  void event(std::string& out, std::string_view event, std::size_t attribute) const;
  void tellMembers(std::string& out, std::size_t attribute, Members const& members) const;
  U64 head() const { return base_ + log_.size(); }

  std::string const name_;
  Ptr<Described> const object_;
  Entity const* const entity_;
  std::function<void()> const wake_;
  std::vector<Attribute const*> const attributes_;
  std::string listed_;
  std::vector<std::string> openings_;   // of an event's line, from the entity's name on, one an attribute
  std::vector<std::string> described_;  // in the list of attributes, without what changes

  std::vector<Cursor*> followers_;  // cursors beyond Begin
  std::size_t needing_ = 0;         // followers that are not behind
  std::size_t longestLog_;
  std::deque<Change> log_;
  U64 base_ = 0;                                               // the number of log_'s first change
  U64 needed_ = 0;                                             // no cursor needs a change before this
  U64 consumed_ = 0;                                           // no cursor is beyond this
  boost::unordered_flat_map<Change, U64, ChangeHash> latest_;  // each change's last number
  std::vector<U64> scalarChanges_;                             // each scalar's last change, by attribute
  U64 newestAtOnce_ = 0, newestLast_ = 0;                      // the last of all those, by when they are told
};

}  // namespace Ostra
