// The receivers of the UDP socket by the address they expect traffic from.
//
// Several sessions may test towards the same reflector address and port (one
// per DSCP, say): every one of them is kept under the key, in the order they
// registered, and a message goes to the receiver whose outstanding packet it
// belongs to. Receivers are never owned.
#ifndef TWAMP_RECEIVER_REGISTRY_H
#define TWAMP_RECEIVER_REGISTRY_H

#include <sys/socket.h>
#include <sys/types.h>

#include <map>
#include <vector>

#include "MessageReceiver.h"
#include "ReceiverKey.h"

class ReceiverRegistry {
  public:
    ReceiverRegistry();
    ReceiverRegistry(const ReceiverRegistry&) = delete;
    ReceiverRegistry& operator=(const ReceiverRegistry&) = delete;
    virtual ~ReceiverRegistry();

    // Adds receiver under key behind the receivers already there; a receiver
    // already under the key is not added twice.
    virtual void add(const ReceiverKey& key, MessageReceiver* receiver);
    // Removes the entry of receiver under key; the other receivers of the key stay.
    virtual void remove(const ReceiverKey& key, MessageReceiver* receiver);
    // The receiver of a reflected packet from key: the only one, else the
    // first that owns the packet, else the first; null when key has none.
    virtual MessageReceiver* findForMessage(const ReceiverKey& key, const struct msghdr* msg) const;
    // The receiver of a looped-back frame sent to key, chosen the same way.
    virtual MessageReceiver* findForErrQueueMessage(const ReceiverKey& key,
                                                    const struct msghdr* msg, ssize_t length) const;
    // The receivers under key in registration order.
    virtual std::vector<MessageReceiver*> receiversOf(const ReceiverKey& key) const;
    // Every receiver, by key and then in registration order.
    virtual std::vector<MessageReceiver*> all() const;

  private:
    template <typename Owns>
    MessageReceiver* find(const ReceiverKey& key, Owns owns) const;

    std::map<ReceiverKey, std::vector<MessageReceiver*>> receivers;  // not owned
};

#endif  // TWAMP_RECEIVER_REGISTRY_H
