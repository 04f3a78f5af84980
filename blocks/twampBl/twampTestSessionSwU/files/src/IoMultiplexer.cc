#include "IoMultiplexer.h"

#include <algorithm>
#include <utility>

namespace {

void eraseGeneration(std::vector<uint64_t>& generations, uint64_t generation) {
    generations.erase(std::remove(generations.begin(), generations.end(), generation),
                      generations.end());
}

// The first entry in [begin, end) whose descriptor is ready.
template <typename Iterator>
Iterator findReady(Iterator begin, Iterator end, const std::set<int>& readyFds) {
    return std::find_if(begin, end, [&readyFds](const auto& entry) {
        return readyFds.count(entry.second.fd) != 0;
    });
}

}  // namespace

unsigned IoMultiplexer::FdWatch::events() const {
    return (readers.empty() ? 0U : IoPoller::kRead) | (writers.empty() ? 0U : IoPoller::kWrite);
}

IoMultiplexer::IoMultiplexer(SelectFunction selectFunction)
    : IoMultiplexer(std::make_unique<SelectPoller>(std::move(selectFunction)),
                    ServeRule::OneReady) {}

IoMultiplexer::IoMultiplexer(std::unique_ptr<IoPoller> poller, ServeRule rule)
    : poller(std::move(poller)), rule(rule) {}

IoMultiplexer::~IoMultiplexer() = default;

bool IoMultiplexer::registerReadHandler(IoHandler* handler) {
    return addEntries(readEntries, handler, handler->getReadFds(), false);
}

void IoMultiplexer::removeReadHandler(IoHandler* handler) {
    removeEntries(readEntries, handler, 0, false);
}

bool IoMultiplexer::registerWriteHandler(IoHandler* handler) {
    return addEntries(writeEntries, handler, handler->getWriteFds(), true);
}

void IoMultiplexer::removeWriteHandler(IoHandler* handler) {
    removeEntries(writeEntries, handler, 0, true);
}

bool IoMultiplexer::handleEvents() {
    if (!poller->wait(ready)) {
        return false;
    }
    if (rule == ServeRule::EveryReady) {
        serveEveryReady();
    } else {
        serveOneReady();
    }
    return true;
}

int IoMultiplexer::getMaxFd() const {
    return watches.empty() ? 0 : watches.rbegin()->first;
}

// ---- Registration ----

bool IoMultiplexer::addEntries(EntryMap& entries, IoHandler* handler, const std::set<int>& fds,
                               bool isWrite) {
    const uint64_t firstGeneration = nextGeneration;
    for (const int fd : fds) {
        if (fd < 0) {
            continue;
        }
        const uint64_t generation = nextGeneration++;
        if (!watchFd(fd, generation, isWrite)) {
            // All or nothing: the caller sees one answer for the whole handler.
            removeEntries(entries, handler, firstGeneration, isWrite);
            return false;
        }
        entries.emplace(generation, IoHandlerFd(handler, fd));
    }
    return true;
}

void IoMultiplexer::removeEntries(EntryMap& entries, IoHandler* handler, uint64_t fromGeneration,
                                  bool isWrite) {
    auto entry = entries.lower_bound(fromGeneration);
    while (entry != entries.end()) {
        if (entry->second.handler != handler) {
            ++entry;
            continue;
        }
        unwatchFd(entry->second.fd, entry->first, isWrite);
        entry = entries.erase(entry);
    }
}

// The poller hears of a descriptor only when the directions watched on it
// change: several entries on one descriptor share one registration.
bool IoMultiplexer::watchFd(int fd, uint64_t generation, bool isWrite) {
    FdWatch& watch = watches[fd];
    std::vector<uint64_t>& generations = isWrite ? watch.writers : watch.readers;
    const unsigned previous = watch.events();
    generations.push_back(generation);
    const unsigned events = watch.events();
    if (events == previous || poller->setEvents(fd, previous, events)) {
        return true;
    }
    generations.pop_back();
    if (watch.events() == 0) {
        watches.erase(fd);
    }
    return false;
}

void IoMultiplexer::unwatchFd(int fd, uint64_t generation, bool isWrite) {
    auto found = watches.find(fd);
    if (found == watches.end()) {
        return;
    }
    FdWatch& watch = found->second;
    const unsigned previous = watch.events();
    eraseGeneration(isWrite ? watch.writers : watch.readers, generation);
    const unsigned events = watch.events();
    if (events != previous) {
        // A failure is traced by the poller; the entry is gone all the same.
        poller->setEvents(fd, previous, events);
    }
    if (events == 0) {
        watches.erase(found);
    }
}

// ---- Every ready descriptor per wake-up ----

void IoMultiplexer::serveEveryReady() {
    collectBatch();
    for (const BatchEntry& item : batch) {
        serveBatchEntry(item);
    }
}

// Takes the entries to call before any is called: what the handlers register
// meanwhile waits for the next wake-up.
void IoMultiplexer::collectBatch() {
    batch.clear();
    const std::size_t count = ready.size();
    if (count == 0) {
        return;
    }
    const std::size_t start = rotation % count;
    ++rotation;
    for (std::size_t i = 0; i < count; ++i) {
        const IoReadiness& readiness = ready[(start + i) % count];
        auto watch = watches.find(readiness.fd);
        if (watch == watches.end()) {
            continue;
        }
        if ((readiness.events & IoPoller::kRead) != 0) {
            for (const uint64_t generation : watch->second.readers) {
                batch.push_back({generation, false});
            }
        }
        if ((readiness.events & IoPoller::kWrite) != 0) {
            for (const uint64_t generation : watch->second.writers) {
                batch.push_back({generation, true});
            }
        }
    }
}

// An earlier handler of the same wake-up may have removed the entry; its
// generation then names no entry, even if its descriptor number was reused.
void IoMultiplexer::serveBatchEntry(const BatchEntry& item) {
    const EntryMap& entries = item.isWrite ? writeEntries : readEntries;
    auto entry = entries.find(item.generation);
    if (entry == entries.end()) {
        return;
    }
    call(entry->second, item.isWrite);
}

// ---- One ready descriptor per call ----

void IoMultiplexer::serveOneReady() {
    std::set<int> readyRead;
    std::set<int> readyWrite;
    for (const IoReadiness& readiness : ready) {
        if ((readiness.events & IoPoller::kRead) != 0) {
            readyRead.insert(readiness.fd);
        }
        if ((readiness.events & IoPoller::kWrite) != 0) {
            readyWrite.insert(readiness.fd);
        }
    }
    const bool writeListFirst = (writeFirst != 0);
    const bool served = writeListFirst ? serveOneFrom(writeEntries, readyWrite, writeCursor, true)
                                       : serveOneFrom(readEntries, readyRead, readCursor, false);
    if (!served) {
        if (writeListFirst) {
            serveOneFrom(readEntries, readyRead, readCursor, false);
        } else {
            serveOneFrom(writeEntries, readyWrite, writeCursor, true);
        }
    }
    writeFirst = (writeFirst == 0) ? 1 : 0;
}

// Round robin: from behind the entry served last to the end, then wrap round.
// Removed entries need no cursor care: the search resumes at the first
// generation behind the cursor, whichever entries are left.
bool IoMultiplexer::serveOneFrom(EntryMap& entries, const std::set<int>& readyFds, uint64_t& cursor,
                                 bool isWrite) {
    auto start = entries.upper_bound(cursor);
    if (start == entries.end()) {
        cursor = 0;
        start = entries.begin();
    }
    auto found = findReady(start, entries.end(), readyFds);
    if (found == entries.end()) {
        found = findReady(entries.begin(), start, readyFds);
        if (found == start) {
            return false;
        }
    }
    cursor = found->first;
    // The handler runs last: it may register or remove entries, even its own.
    call(found->second, isWrite);
    return true;
}

void IoMultiplexer::call(const IoHandlerFd& entry, bool isWrite) {
    // A copy: the handler may remove the entry it is called for.
    const IoHandlerFd target = entry;
    if (isWrite) {
        target.handler->handleOutput(target.fd);
    } else {
        target.handler->handleInput(target.fd);
    }
}
