// The process's one event loop over every watched descriptor.
//
// Handlers register the descriptors they own; a poller (epoll for the daemon,
// select kept for comparison) waits for readiness, and the loop hands each
// ready descriptor to the handlers registered for it. The loop knows
// descriptors and handlers, nothing of what they serve.
//
// Two serving rules, fixed at construction:
// - every ready descriptor per wake-up (the daemon's): with a couple of
//   thousand session timers ready at once, serving one per wait would starve
//   the shared UDP socket until its receive buffer overflows. The walk over
//   the ready descriptors starts one further on at each wake-up, so that no
//   descriptor is always served last;
// - one ready descriptor per call (select's historic rule): a cursor makes
//   the next search resume behind the entry served last, and a toggle
//   alternates which list (read or write) is tried first.
//
// Every registration is an entry with a generation number of its own. A
// handler may register and remove handlers (its own or others') from inside
// handleInput/handleOutput: the dispatcher creates and deletes sessions while
// it handles a signal. An entry removed during a wake-up is not called
// afterwards, also when its descriptor number is taken over by a new
// registration in the same wake-up; a new entry is served from the next
// wake-up on. Registering a handler twice watches its descriptors twice (it
// is called for each entry) and one removal takes both.
//
// The multiplexer never owns handlers. handleEvents is not re-entrant.
#ifndef TWAMP_IO_MULTIPLEXER_H
#define TWAMP_IO_MULTIPLEXER_H

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "IoHandler.h"
#include "IoHandlerFd.h"
#include "IoPoller.h"
#include "SelectPoller.h"

class IoMultiplexer {
  public:
    using SelectFunction = SelectPoller::SelectFunction;

    enum class ServeRule {
        EveryReady,  // every ready descriptor per wake-up, in a rotating order
        OneReady,    // one ready descriptor per call, round robin
    };

    // The select loop, one ready descriptor per call, over the given select.
    explicit IoMultiplexer(SelectFunction selectFunction = ::select);
    // Any poller under either rule; the multiplexer owns the poller. The
    // daemon's loop is an EpollPoller serving every ready descriptor.
    IoMultiplexer(std::unique_ptr<IoPoller> poller, ServeRule rule);
    IoMultiplexer(const IoMultiplexer&) = delete;
    IoMultiplexer& operator=(const IoMultiplexer&) = delete;
    virtual ~IoMultiplexer();

    // Watches the handler's current getReadFds() for reading, in ascending
    // order; false (traced by the poller) when one cannot be watched, and then
    // none of them is.
    virtual bool registerReadHandler(IoHandler* handler);
    // Stops watching every read descriptor of the handler.
    virtual void removeReadHandler(IoHandler* handler);
    // Watches the handler's current getWriteFds() for writing; as registerReadHandler.
    virtual bool registerWriteHandler(IoHandler* handler);
    // Stops watching every write descriptor of the handler.
    virtual void removeWriteHandler(IoHandler* handler);
    // Waits without time-out and serves what is ready by the serving rule;
    // false when the wait fails.
    virtual bool handleEvents();
    // The highest watched descriptor, 0 when nothing is watched.
    virtual int getMaxFd() const;

  private:
    // Entries of one direction by generation, that is in registration order.
    using EntryMap = std::map<uint64_t, IoHandlerFd>;

    // The generations of the entries watching one descriptor.
    struct FdWatch {
        std::vector<uint64_t> readers;
        std::vector<uint64_t> writers;
        unsigned events() const;
    };

    // One entry to call in the current wake-up.
    struct BatchEntry {
        uint64_t generation;
        bool isWrite;
    };

    bool addEntries(EntryMap& entries, IoHandler* handler, const std::set<int>& fds, bool isWrite);
    void removeEntries(EntryMap& entries, IoHandler* handler, uint64_t fromGeneration,
                       bool isWrite);
    bool watchFd(int fd, uint64_t generation, bool isWrite);
    void unwatchFd(int fd, uint64_t generation, bool isWrite);
    void serveEveryReady();
    void collectBatch();
    void serveBatchEntry(const BatchEntry& item);
    void serveOneReady();
    bool serveOneFrom(EntryMap& entries, const std::set<int>& readyFds, uint64_t& cursor,
                      bool isWrite);
    static void call(const IoHandlerFd& entry, bool isWrite);

    std::unique_ptr<IoPoller> poller;
    ServeRule rule;
    EntryMap readEntries;
    EntryMap writeEntries;
    std::map<int, FdWatch> watches;  // by descriptor; the last one is the highest
    uint64_t nextGeneration = 1;
    std::vector<IoReadiness> ready;  // what the last wait reported
    // Every-ready rule: where the walk over the ready descriptors starts.
    std::size_t rotation = 0;
    std::vector<BatchEntry> batch;
    // One-ready rule: generation of the entry served last in each list (0:
    // none), and which list is tried first (0: read, 1: write).
    uint64_t readCursor = 0;
    uint64_t writeCursor = 0;
    int writeFirst = 0;
};

#endif  // TWAMP_IO_MULTIPLEXER_H
