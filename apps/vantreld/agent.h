// SPDX-License-Identifier: Apache-2.0
// The reference agent: one event loop over tables, timer, management socket and signals, with the engine in
// the middle.
//
//   config.shoal --> ReaderTable --> VantrelSm --> FastVantrelImpl --> hardware client --> status.shoal
//
// Invariants: engine and front end exist from the moment on at which a producer's table exists.
//   DIR/status.shoal is empty at the start: what this agent has not programmed is not acknowledged.
// Ownership: owns everything.
// Threading: run() is the one thread.
// Errors: what stands in the way of a start, the first walk of the table included, is thrown, one sentence
//   each. At work, what one key's handling throws is said on stderr and the loop goes on.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/signal_set.hpp>
#include <functional>
#include <memory>
#include <vector>

#include "apps/vantreld/options.h"
#include "apps/vantreld/reports.h"
#include "hw/simulated_tcam.h"
#include "ostra/publish.h"
#include "shoal/reader_table.h"
#include "shoal/writer_table.h"
#include "vantrel/vantrel.h"

namespace Vantreld {

class Agent {
 public:
  explicit Agent(Options options);
  ~Agent();

  // Until SIGTERM or SIGINT; then everything programmed is withdrawn. Returns the process's exit status: 1
  // when the hardware saw a rule broken.
  int run();

 private:
  using Config = Shoal::ReaderTable<Vantrel::EntryConfig>;
  using Status = Shoal::WriterTable<Vantrel::EntryStatus>;
  class Watched;

  void makeHardware();
  void publish();
  void awaitConfig();
  void attach();
  void makeEngine();
  void whenReadable(int fd, std::function<void()> dispatch);
  void sayReady() const;
  void sayDamage();
  void withdraw();
  void sayWhatWasDone() const;

  Options const options_;
  boost::asio::io_context loop_;
  boost::asio::signal_set signals_;
  std::vector<std::unique_ptr<Watched>> watched_;
  Ostra::Ptr<Status> status_;
  Ostra::Ptr<Vantrel::VantrelHelper> hardware_;
  Hw::SimulatedTcam* sim_ = nullptr;  // hardware_, when it is one
  Ostra::Ptr<Vantrel::DebugConfig> debugConfig_;
  Ostra::Ptr<Vantrel::DebugStatus> debugStatus_;
  Ostra::Ptr<Vantrel::VantrelFlushStatus> flushStatus_;
  Ostra::Ptr<Keel::TimerfdWheel> wheel_;
  std::unique_ptr<Ostra::Publisher> publisher_;
  Ostra::Ptr<Config> config_;
  Ostra::Ptr<Vantrel::FastVantrelImpl> engine_;
  Ostra::Ptr<Vantrel::VantrelSm> frontEnd_;
  U64 damageSaid_ = 0;
};

}  // namespace Vantreld
