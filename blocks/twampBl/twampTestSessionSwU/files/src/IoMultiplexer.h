// The process's one event loop: select() over every watched descriptor.
//
// Each handleEvents() call waits for readiness and serves exactly one ready
// descriptor. Within a list a cursor makes the next search resume behind the
// entry served last, so that one busy descriptor cannot starve the others,
// and a toggle alternates which list (read or write) is tried first.
// Readiness left unserved is simply seen again by the next select().
//
// The multiplexer never owns handlers. Handlers may register and remove
// themselves from inside handleInput/handleOutput: the dispatch calls the
// handler last and touches neither list nor cursor afterwards.
#ifndef TWAMP_IO_MULTIPLEXER_H
#define TWAMP_IO_MULTIPLEXER_H

#include <sys/select.h>

#include <functional>
#include <set>
#include <vector>

#include "IoHandler.h"
#include "IoHandlerFd.h"

class IoMultiplexer {
  public:
    // The readiness wait, with the signature of ::select; replaceable in tests.
    using SelectFunction = std::function<int(int nfds, fd_set* readFds, fd_set* writeFds,
                                             fd_set* exceptFds, struct timeval* timeout)>;

    explicit IoMultiplexer(SelectFunction selectFunction = ::select);
    IoMultiplexer(const IoMultiplexer&) = delete;
    IoMultiplexer& operator=(const IoMultiplexer&) = delete;
    virtual ~IoMultiplexer();

    // Watches the handler's current getReadFds() for reading, in ascending order.
    virtual void registerReadHandler(IoHandler* handler);
    // Stops watching every read descriptor of the handler.
    virtual void removeReadHandler(IoHandler* handler);
    // Watches the handler's current getWriteFds() for writing, in ascending order.
    virtual void registerWriteHandler(IoHandler* handler);
    // Stops watching every write descriptor of the handler.
    virtual void removeWriteHandler(IoHandler* handler);
    // Waits without time-out and serves at most one ready descriptor; false when select fails.
    virtual bool handleEvents();
    // The highest watched descriptor, 0 when nothing is watched.
    virtual int getMaxFd() const;

  private:
    void addEntries(std::vector<IoHandlerFd>& list, IoHandler* handler, const std::set<int>& fds);
    void removeEntries(std::vector<IoHandlerFd>& list, unsigned int& cursor, IoHandler* handler);
    void recomputeMaxFd();
    void buildReadySets();
    bool dispatchFirstReady(bool fromWriteList);
    bool dispatchFrom(std::vector<IoHandlerFd>& list, const fd_set& readySet, unsigned int& cursor,
                      bool isWriteList);

    fd_set readSet;
    fd_set writeSet;
    fd_set exceptSet;  // always passed empty
    std::vector<IoHandlerFd> readList;
    std::vector<IoHandlerFd> writeList;
    int maxFd = 0;
    int writeFirst = 0;  // 0: read list tried first on the next dispatch, 1: write list
    unsigned int readCursor = 0;
    unsigned int writeCursor = 0;
    SelectFunction selectFunction;
};

#endif  // TWAMP_IO_MULTIPLEXER_H
