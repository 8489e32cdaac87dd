// The workload the example agents share: a feed timer writes bursts of
// datagrams into a socketpair, a descriptor task reads them at high priority
// and hands them to a cruncher that works them off in slices that end when
// its quantum is used; shards of an indexer, small timer tasks of a group,
// do a little work each period.
//
// Owner: the agent's main(), on the thread of its root scheduler. The tasks
// are plain heap objects held by Ptr; each brings its own deallocation.
#pragma once

#include <Kesto/EventKesto.h>

#include <sys/socket.h>

#include <array>

namespace KestoExample {

using namespace Kesto;

#define EXAMPLE_TASK_DELETE \
  static void operator delete(void* p) { ::operator delete(p); }

// Messages on the socketpair: one datagram each, so that a read never has
// to keep a partial message between runs.
struct Message {
  U64 sequence;
  U64 sentAtNanos; // Kesto::time() of the sender, for the transit figure
  std::array<char, 48> payload;
};
static_assert(sizeof(Message) == 64);

inline U64 nanosOf(double seconds) { return U64(seconds * 1e9); }

// Works off a backlog of items, each a hash over a block of memory, in
// slices that end when the task has used its quantum.
class Cruncher : public Task {
public:
  explicit Cruncher(const Ptr<TaskScheduler>& s) : Task(s, TaskPriority::low, "cruncher") {}
  EXAMPLE_TASK_DELETE

  void more(U32 items) {
    backlog_ += items;
    if (!taskScheduled() && !taskCurrentlyRunning())
      scheduleTask();
  }
  U64 itemsDone() const { return itemsDone_; }
  U64 checksum() const { return checksum_; }

  void taskExecute() override {
    U32 done = 0;
    while (backlog_ != 0 && !taskShouldYield()) {
      checksum_ = hashBlock(checksum_ + itemsDone_);
      --backlog_;
      ++itemsDone_;
      ++done;
    }
    taskWorkCountInc(done);
    taskWorkPendingIs(backlog_);
    if (backlog_ != 0)
      scheduleTask();
  }

private:
  U64 hashBlock(U64 seed) {
    U64 h = 1469598103934665603ULL ^ seed;
    for (unsigned char c : block_) {
      h ^= c;
      h *= 1099511628211ULL;
    }
    block_[seed % block_.size()] = static_cast<unsigned char>(h);
    return h;
  }

  std::array<unsigned char, 256> block_{};
  U32 backlog_ = 0;
  U64 itemsDone_ = 0;
  U64 checksum_ = 0;
};

// Reads messages off its end of the socketpair. The loop only queues its read
// task; the reading happens here, at high priority, as one task among others.
class Ingest : public FileDescriptorTask {
public:
  Ingest(const Ptr<TaskScheduler>& s, int fd, Cruncher* cruncher)
      : FileDescriptorTask(s, TaskPriority::high, "ingest"), cruncher_(cruncher) {
    taskWatchFdIs(fd);
  }
  EXAMPLE_TASK_DELETE

  U64 received() const { return received_; }
  double maxTransitSeconds() const { return double(maxTransitNanos_) / 1e9; }

  void taskExecuteReadable() override {
    Message m;
    U32 messages = 0;
    for (;;) {
      if (::recv(taskWatchFd(), &m, sizeof(m), 0) != ssize_t(sizeof(m)))
        break; // EAGAIN: drained; the persistent read event brings us back
      const U64 now = nanosOf(Kesto::time());
      if (now - m.sentAtNanos > maxTransitNanos_)
        maxTransitNanos_ = now - m.sentAtNanos;
      ++messages;
      if (taskShouldYield()) {
        scheduleTaskReadable(); // more may be waiting; yield to others first
        break;
      }
    }
    received_ += messages;
    taskWorkCountInc(messages);
    cruncher_->more(messages);
  }
  void taskExecuteWritable() override {}

private:
  Cruncher* cruncher_;
  U64 received_ = 0;
  U64 maxTransitNanos_ = 0;
};

// Writes a burst of 1 to maxBurst messages every period, less a random part
// of up to half.
class Feed : public TimerTask {
public:
  Feed(const Ptr<TaskScheduler>& s, int fd, double period = 0.100, unsigned maxBurst = 4)
      : TimerTask(s, TaskPriority::normal, "feed"), fd_(fd), period_(period), maxBurst_(maxBurst) {}
  EXAMPLE_TASK_DELETE

  U64 sent() const { return sent_; }
  U64 refused() const { return refused_; }

  void taskExecute() override {
    const unsigned burst = 1 + unsigned(sent_ % maxBurst_);
    for (unsigned i = 0; i < burst; ++i) {
      Message m{};
      m.sequence = sent_;
      m.sentAtNanos = nanosOf(Kesto::time());
      fmt::format_to_n(m.payload.data(), m.payload.size() - 1, "message {}", sent_);
      if (::send(fd_, &m, sizeof(m), 0) != ssize_t(sizeof(m))) {
        ++refused_; // the reader fell behind by a whole socket buffer
        break;
      }
      ++sent_;
    }
    taskWorkCountInc(burst);
    scheduleTaskJitterDown(period_, 50);
  }

private:
  int fd_;
  double period_;
  unsigned maxBurst_;
  U64 sent_ = 0;
  U64 refused_ = 0;
};

// One shard of an indexer: `work` steps of arithmetic, then the same again
// after `period` seconds, less up to 20 %.
class Shard : public TimerTask {
public:
  Shard(const Ptr<TaskScheduler>& group, TaskPriority priority, const char* name, unsigned index, unsigned work,
        double period)
      : TimerTask(group, priority, name), index_(index), work_(work), period_(period) {}
  EXAMPLE_TASK_DELETE

  void taskExecute() override {
    for (unsigned i = 0; i < work_; ++i)
      state_ = state_ * 6364136223846793005ULL + index_ + i;
    taskWorkCountInc(work_);
    scheduleTaskJitterDown(period_, 20);
  }

private:
  unsigned index_;
  unsigned work_;
  double period_;
  U64 state_ = 0;
};

} // namespace KestoExample
