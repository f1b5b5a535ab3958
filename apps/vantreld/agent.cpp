// SPDX-License-Identifier: Apache-2.0
#include "apps/vantreld/agent.h"

#include <fmt/format.h>
#include <systemd/sd-daemon.h>

#include "lumelog/lumelog.h"
#include "ostra/clock.h"
#include "producer/shared_tables.h"

namespace Vantreld {
namespace {

constexpr U32 traceId = 1;  // heads every trace record of the one engine

// How long questions and signals wait for an engine that is at work, seconds.
constexpr double patience = 0.002;
// Seconds. The reader of the configuration table wakes the loop once a second.
constexpr double pollPeriod = 0.9;

// The writer lock of the status table ensures that one agent at most serves the directory.
Ostra::Ptr<Shoal::WriterTable<Vantrel::EntryStatus>> ownStatus(std::string const& dir) {
  try {
    return Ostra::make<Shoal::WriterTable<Vantrel::EntryStatus>>(dir + "/status.shoal",
                                                                 Shoal::WriterOptions{.replace = true});
  } catch (Shoal::WriterLockedException const& e) {
    throw std::runtime_error(fmt::format("another agent serves {}: process {}", dir, e.holder()));
  }
}

char const* kindOfPositions(HardwareKind kind) {
  switch (kind) {
    case HardwareKind::Sim:
      return "simulated";
    case HardwareKind::Null:
      return "imaginary";
    case HardwareKind::Xdp:
      return "kernel";
  }
  return "";
}

// The service manager, if one started this process. It may be gone: nothing depends on its hearing it.
void tellManager(std::string const& state) { static_cast<void>(::sd_notify(0, state.c_str())); }

}  // namespace

// Watches a file descriptor on the loop, and does not own it.
class Agent::Watched {
 public:
  Watched(boost::asio::io_context& loop, int fd, std::function<void()> dispatch)
      : descriptor_(loop, fd), dispatch_(std::move(dispatch)) {
    await();
  }
  ~Watched() { descriptor_.release(); }
  Watched(Watched const&) = delete;
  Watched& operator=(Watched const&) = delete;

 private:
  // Waits again after the dispatch, also when that throws. Not before it: the system call would delay the
  // acknowledgement.
  struct AwaitedAgain {
    Watched& watched;
    ~AwaitedAgain() { watched.await(); }
  };
  void await() {
    descriptor_.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                           [this](boost::system::error_code error) {
                             if (error) return;
                             AwaitedAgain const after{*this};
                             dispatch_();
                           });
  }
  boost::asio::posix::stream_descriptor descriptor_;
  std::function<void()> const dispatch_;
};

// Calls betweenKeys() at each key that the table notifies: one dispatch may notify many.
class Agent::KeyWatcher : public Vantrel::TableConfig::Notifiee {
 public:
  explicit KeyWatcher(Agent& agent) : agent_(agent) {
    notifierIs(agent.config_);
    synchronizedIs(true);
    hasNotificationActiveIs(true);
  }
  void onEntry(Vantrel::EntryKey const& key) override {
    agent_.metrics_->notified(key);
    agent_.reserveStatuses();
    agent_.betweenKeys();
  }

 private:
  Agent& agent_;
};

Agent::Agent(Options options, Log& out, Log& err)
    : options_(std::move(options)),
      out_(out),
      err_(err),
      status_(ownStatus(options_.dir)),
      statusFile_(status_->name()),
      hardware_(options_, status_, err_),
      debugConfig_(Vantrel::debugConfigFactory("debugConfig")),
      debugStatus_(Vantrel::debugStatusFactory("debugStatus")),
      waitStatus_(Ostra::make<Vantrel::WaitStatus>("waitStatus")),
      flushStatus_(Ostra::make<Vantrel::VantrelFlushStatus>("flushStatus")),
      wheel_(Ostra::make<Keel::TimerfdWheel>()),
      progress_(Ostra::make<Progress>(options_.geometry())) {
  options_.geometry().write(options_.dir);
  Lumelog::directoryIs(options_.dir);
  publish();
  whenReadable(stop_.fd(), [] {});
  whenReadable(wheel_->fd(), [this] { wheel_->dispatch(); });
  for (int const fd : hardware_.fds())
    if (fd >= 0) whenReadable(fd, [this] { hardware_.dispatch(); });
  awaitConfig();
}

Agent::~Agent() { withdraw(); }

void Agent::publish() {
  publisher_ = std::make_unique<Ostra::Publisher>(options_.dir + "/mgmt.sock");
  publisher_->exportObject("flushStatus", flushStatus_);
  publisher_->exportObject("debugConfig", debugConfig_);
  publisher_->exportObject("debugStatus", debugStatus_);
  publisher_->exportObject("waitStatus", waitStatus_);
  hardware_.publish(*publisher_);
  publisher_->exportObject(
      "statusTable", Ostra::make<TableReport>(
                         status_, [this] { return status_->size(); }, [this] { return statusProblem_; }));
  publisher_->exportObject("agent", progress_);
  publisher_->exportObject("trace", Ostra::make<TraceControl>());
  whenReadable(publisher_->fd(), [this] {
    publisher_->dispatch();
    explainSnapshot();
  });
}

void Agent::whenReadable(int fd, std::function<void()> dispatch) {
  watched_.push_back(std::make_unique<Watched>(loop_, fd, std::move(dispatch)));
}

// The engine is made at once. The front end, which counts attached tables, is made when there is a table.
void Agent::awaitConfig() {
  config_ = Ostra::make<Config>(options_.dir + "/config.shoal", Config::Presence::awaited);
  makeEngine();
  validator_ =
      std::make_shared<Validator>(options_.mapping(), options_.size, *engine_,
                                  [this](std::string const& what) { config_->corruptionDetected(what); });
  config_->validatorIs(validator_.get());
  publisher_->exportObject("engine", engine_);
  publisher_->exportObject("configTable", Ostra::make<ConfigReport>(
                                              config_, [this] { return config_->size(); },
                                              [this] { return config_->problem(); }, validator_));
  waiting_ = Ostra::make<Waiting>(err_);
  waiting_->warnAfterIs(options_.warnAfter);
  publisher_->exportObject("waiting", waiting_);
  metrics_ = Ostra::make<Metrics>(
      Metrics::Sources{progress_, waiting_, engine_, hardware_.executor(), config_, status_, validator_,
                       [this] { return frontEnd_ ? static_cast<U64>(frontEnd_->failedKey().size()) : 0; }});
  publisher_->exportObject("metrics", metrics_);
  whenReadable(config_->fd(), [this] {
    config_->dispatch();
    if (!frontEnd_ && config_->mounted()) attach();
  });
}

void Agent::attach() {
  reserveStatuses();
  progress_->stateIs("adopting");
  adopt();
  progress_->stateIs("serving");
  keyWatcher_ = std::make_unique<KeyWatcher>(*this);
  frontEnd_ =
      Vantrel::vantrelSmFactory(config_, status_, debugConfig_, debugStatus_, engine_, flushStatus_, wheel_);
  publisher_->exportObject("frontEnd", frontEnd_);
  handOverUnwanted();
  engine_->handleDebug();  // a request that was made before there was a front end
  explainSnapshot();
  sayDamage();
}

// Before an entry is programmed there is space for its acknowledgement.
void Agent::reserveStatuses() try {
  if (lacksSpace_) return;
  status_->reserve(config_->size());
  lackIsSaid_ = false;
} catch (Shoal::NoSpaceException const& full) {
  lacksSpace_ = true;
  if (std::exchange(lackIsSaid_, true)) return;
  err_.provoked("no space for a status of each key: {}; entries are programmed, and acknowledged later",
                full.what());
}

void Agent::adopt() {
  hardware_.adopt(*engine_, *config_, *validator_);
  Hw::Adopted const& adopted = hardware_.adopted();
  if (adopted.entries != 0) out_.say("adopted {} entries that the hardware held", adopted.entries);
  if (adopted.erased != 0)
    out_.say("{} positions of the hardware are erased: what they held cannot be adopted", adopted.erased);
}

// Behind the walk, so that what takes the place of such an entry may come first.
void Agent::handOverUnwanted() {
  auto const unwanted = hardware_.unwanted();
  for (Vantrel::EntryKey const& key : unwanted) {
    frontEnd_->handleEntry(key);
    engine_->yield();
  }
  if (!unwanted.empty()) hardware_.executor()->flush();
}

// In the turn that took it, so that nothing has changed since. Not by a watcher of the snapshot, who would be
// told of each member.
void Agent::explainSnapshot() {
  if (waitStatus_->version() != debugStatus_->version()) waitStatus_->explain(*engine_, *debugStatus_);
}

void Agent::makeEngine() {
  if (options_.engine == EngineKind::Atcam)
    engine_ = Ostra::make<Vantrel::FastVantrelAtcamImpl>(
        "engine", config_, debugConfig_, debugStatus_, hardware_.executor(), traceId, options_.maxPartitions);
  else
    engine_ = Ostra::make<Vantrel::FastVantrelImpl>("engine", config_, debugConfig_, debugStatus_,
                                                    hardware_.executor(), traceId);
  if (options_.prioGrpShift) engine_->prioGrpShiftIs(options_.prioGrpShift);
  engine_->breakMixedRingsIs(!options_.strict);
  engine_->roomForKeysIs(options_.size);
  engine_->yieldIs(this);
}

int Agent::run() {
  try {
    serve();
  } catch (Stop const&) {  // it ended a walk or a drain
  }
  withdraw();
  sayWhatWasDone();
  return hardware_.violations() != 0 ? 1 : 0;
}

void Agent::serve() {
  if (config_->mounted()) attach();
  sayReady();
  poll();
  while (!stop_.asked()) {
    try {
      loop_.run_one();
    } catch (Stop const&) {
      throw;
    } catch (std::exception const& e) {
      if (config_->mounted() && !frontEnd_) throw;  // the first walk failed: the table would stay unwatched
      err_.provoked("{}", e.what());
    }
    lookAround();
  }
}

// What it finds wrong is no reason to end.
void Agent::lookAround() try {
  if (metrics_) metrics_->look();
  sayDamage();
  if (Ostra::now() - polledAt_ >= pollPeriod) poll();
} catch (std::exception const& e) {
  err_.provoked("{}", e.what());
}

void Agent::betweenKeys() {
  if (Ostra::now() - servedAt_ >= patience) serveOthers();
  if (!hardware_.isCrowded()) return;
  while (!hardware_.isRelaxed()) {
    hardware_.wait();
    serveOthers();
  }
}

// Serves readers and the hardware, polls, and looks for a stop signal, which does not end the clean-up.
void Agent::serveOthers() {
  bool const withdrawing = progress_->state() == "withdrawing";
  if (withdrawing) progress_->leftIs(status_->size());
  hardware_.dispatch();
  try {
    publisher_->dispatchReadOnly();
  } catch (std::exception const& e) {
    err_.provoked("{}", e.what());
  }
  if (metrics_) metrics_->sliced();
  lookAround();
  servedAt_ = Ostra::now();
  if (stop_.asked() && !withdrawing) throw Stop();
}

// Looks for problems that nothing notifies.
void Agent::poll() {
  polledAt_ = Ostra::now();
  sayDamage();
  sayStatusProblem();
  if (std::exchange(lacksSpace_, false)) reserveStatuses();
  if (frontEnd_) waiting_->look(*engine_, *config_);
  writeMetrics();
  out_.catchUp();
  err_.catchUp();
}

void Agent::writeMetrics() {
  if (!metrics_ || options_.metrics.empty() || Ostra::now() - metricsWrittenAt_ < options_.metricsInterval)
    return;
  metricsWrittenAt_ = Ostra::now();
  std::string const problem = metrics_->writeTo(options_.metrics);
  if (!problem.empty() && problem != metricsProblem_) err_.say("{}", problem);
  metricsProblem_ = problem;
}

void Agent::sayReady() {
  std::string wanted = fmt::format("{} entries wanted", config_->size());
  if (!config_->mounted())
    wanted = config_->problem().empty()
                 ? "waiting for a producer's config.shoal"
                 : fmt::format("waiting for a table that can be read: {}", config_->problem());
  std::string const engine = options_.engine == EngineKind::Atcam
                                 ? fmt::format("atcam with {} partitions", options_.maxPartitions)
                                 : "fast";
  std::string const state = fmt::format("engine {}, {} {} positions, {}", engine, options_.size,
                                        kindOfPositions(options_.hardware), wanted);
  out_.say("ready in {}: {}", options_.dir, state);
  tellManager("READY=1\nSTATUS=" + state);
}

// Says the latest damaged or refused record whenever their number has grown.
void Agent::sayDamage() {
  sayConfigProblem();
  if (config_->corruptions() == damageSaid_) return;
  damageSaid_ = config_->corruptions();
  if (config_->lastCorruption() == configProblem_) return;
  err_.provoked("{}: damage found, {} in all; the last: {}", config_->path(), damageSaid_,
                config_->lastCorruption());
}

void Agent::sayConfigProblem() {
  if (config_->problem() == configProblem_) return;
  configProblem_ = config_->problem();
  if (configProblem_.empty())
    err_.provoked("{}: it can be read again", config_->path());
  else
    err_.provoked("{}{}; waiting for a table", configProblem_,
                  Vantrel::SharedTables::advice(config_->path()));
}

void Agent::sayStatusProblem() {
  std::string const problem = statusFile_.problem();
  if (problem == statusProblem_) return;
  statusProblem_ = problem;
  if (problem.empty())
    err_.say("{} is back", status_->name());
  else
    err_.say("{}", problem);
}

// Releases the front end first, then the engine, whose destructor cleans up. The publisher holds references
// to what it exports, so it must withdraw both.
void Agent::withdraw() {
  if (!engine_) return;
  tellManager("STOPPING=1");
  watched_.clear();
  keyWatcher_ = nullptr;
  frontEnd_ = nullptr;
  publisher_->withdraw("frontEnd");
  publisher_->withdraw("engine");
  publisher_->withdraw("metrics");
  metrics_ = nullptr;
  progress_->stateIs("withdrawing");
  if (options_.keep) {
    finishHardware();
    hardware_.executor()->detach();
  } else {
    hardware_.eraseRest();
    progress_->leftIs(status_->size());
    if (progress_->left() != 0) out_.say("withdrawing {} entries", progress_->left());
  }
  engine_ = nullptr;
  finishHardware();
  publisher_ = nullptr;
}

// Lets the hardware do what it was asked for. What it does not answer to holds the agent until a second
// signal.
void Agent::finishHardware() {
  bool isSaid = false;
  while (hardware_.executor()->behind() != 0) {
    hardware_.wait();
    serveOthers();
    if (hardware_.executor()->behind() == 0 || std::exchange(isSaid, true)) continue;
    out_.say("waiting for the hardware, which is {} calls behind", hardware_.executor()->behind());
  }
}

void Agent::sayWhatWasDone() {
  std::string const summary = hardware_.summary();
  if (summary.empty())
    out_.say("stopped; statuses left: {}", status_->size());
  else
    out_.say("stopped: {}, statuses left: {}", summary, status_->size());
}

}  // namespace Vantreld
