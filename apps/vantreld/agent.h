// SPDX-License-Identifier: Apache-2.0
// The reference agent: one event loop over tables, timer, management socket and signals, with the engine in
// the middle.
//
//   config.shoal --> ReaderTable --> VantrelSm --> FastVantrelImpl --> Hardware --> status.shoal
//
// A call that handles many keys (a full walk, the keys that vanished, a retry pass, a drain of the work
// queue, the clean-up) calls betweenKeys() between two of them. Every other millisecond that serves the
// readers on the management socket and the hardware, and checks whether the agent was asked to stop; it waits
// while the hardware is too far behind:
//
//   walk: key key key key ...            clean-up: key key key ...
//             |       |                              |
//             +-------+------- betweenKeys() --------+-------> questions; a signal ends a walk
//
// Invariants: the front end exists once a producer's table can be read; just before, what hardware holds from
//   an earlier run is adopted. DIR/status.shoal is empty at the start: an entry that this agent has neither
//   adopted nor programmed is not acknowledged.
// Ownership: owns everything.
// Threading: run() is the one thread.
// Errors: the constructor and the first walk of the table throw what prevents a start, one sentence each.
//   Later, an exception from the handling of a key is written to stderr and the loop goes on; so are problems
//   with the files of the tables.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "apps/vantreld/hardware.h"
#include "apps/vantreld/log.h"
#include "apps/vantreld/metrics.h"
#include "apps/vantreld/options.h"
#include "apps/vantreld/own_file.h"
#include "apps/vantreld/reports.h"
#include "apps/vantreld/stop.h"
#include "apps/vantreld/validator.h"
#include "apps/vantreld/waiting.h"
#include "ostra/publish.h"
#include "shoal/reader_table.h"
#include "shoal/writer_table.h"
#include "vantrel/diag/wait_status.h"
#include "vantrel/vantrel.h"

namespace Vantreld {

class Agent final : private Vantrel::VantrelImpl::Yield {
 public:
  Agent(Options options, Log& out, Log& err);
  ~Agent();

  // Serves until SIGTERM or SIGINT, then withdraws everything programmed, unless it is to be kept. Returns
  // the process's exit status: 1 when the hardware found a rule broken.
  int run();

 private:
  using Config = Shoal::ReaderTable<Vantrel::EntryConfig>;
  using Status = Shoal::WriterTable<Vantrel::EntryStatus>;
  class Watched;
  class KeyWatcher;

  void publish();
  void makeEngine();
  void explainSnapshot();
  void awaitConfig();
  void attach();
  void serve();
  void betweenKeys() override;
  void serveOthers();
  void adopt();
  void reserveStatuses();
  void handOverUnwanted();
  void finishHardware();
  void whenReadable(int fd, std::function<void()> dispatch);
  void lookAround();
  void poll();
  void sayReady();
  void sayConfigProblem();
  void sayStatusProblem();
  void writeMetrics();
  void sayDamage();
  void withdraw();
  void sayWhatWasDone();

  Options const options_;
  Log& out_;
  Log& err_;
  StopSignals const stop_;
  boost::asio::io_context loop_;
  std::vector<std::unique_ptr<Watched>> watched_;
  Ostra::Ptr<Status> status_;
  OwnFile const statusFile_;
  Hardware hardware_;
  Ostra::Ptr<Vantrel::DebugConfig> debugConfig_;
  Ostra::Ptr<Vantrel::DebugStatus> debugStatus_;
  Ostra::Ptr<Vantrel::WaitStatus> waitStatus_;
  Ostra::Ptr<Vantrel::VantrelFlushStatus> flushStatus_;
  Ostra::Ptr<Keel::TimerfdWheel> wheel_;
  std::unique_ptr<Ostra::Publisher> publisher_;
  Ostra::Ptr<Progress> progress_;
  Ostra::Ptr<Config> config_;
  std::shared_ptr<Validator> validator_;
  Ostra::Ptr<Vantrel::FastVantrelImpl> engine_;
  Ostra::Ptr<Waiting> waiting_;
  Ostra::Ptr<Metrics> metrics_;
  double metricsWrittenAt_ = 0;
  std::string metricsProblem_;  // the problem that was said last
  std::unique_ptr<KeyWatcher> keyWatcher_;
  Ostra::Ptr<Vantrel::VantrelSm> frontEnd_;
  double servedAt_ = 0;  // when betweenKeys() served readers last, seconds
  double polledAt_ = 0;
  bool lacksSpace_ = false;  // for a status of each key; looked at again in poll()
  bool lackIsSaid_ = false;
  U64 damageSaid_ = 0;         // the number of damaged records that was said last
  std::string configProblem_;  // the problem that was said last
  std::string statusProblem_;
};

}  // namespace Vantreld
