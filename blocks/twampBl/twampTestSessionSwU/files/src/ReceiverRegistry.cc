#include "ReceiverRegistry.h"

#include <algorithm>

ReceiverRegistry::ReceiverRegistry() = default;

ReceiverRegistry::~ReceiverRegistry() = default;

void ReceiverRegistry::add(const ReceiverKey& key, MessageReceiver* receiver) {
    std::vector<MessageReceiver*>& entries = receivers[key];
    if (std::find(entries.begin(), entries.end(), receiver) == entries.end()) {
        entries.push_back(receiver);
    }
}

void ReceiverRegistry::remove(const ReceiverKey& key, MessageReceiver* receiver) {
    const auto found = receivers.find(key);
    if (found == receivers.end()) {
        return;
    }
    std::vector<MessageReceiver*>& entries = found->second;
    entries.erase(std::remove(entries.begin(), entries.end(), receiver), entries.end());
    if (entries.empty()) {
        receivers.erase(found);
    }
}

MessageReceiver* ReceiverRegistry::findForMessage(const ReceiverKey& key,
                                                  const struct msghdr* msg) const {
    return find(key, [msg](const MessageReceiver& receiver) { return receiver.ownsMessage(msg); });
}

MessageReceiver* ReceiverRegistry::findForErrQueueMessage(const ReceiverKey& key,
                                                          const struct msghdr* msg,
                                                          ssize_t length) const {
    return find(key, [msg, length](const MessageReceiver& receiver) {
        return receiver.ownsErrQueueMessage(msg, length);
    });
}

std::vector<MessageReceiver*> ReceiverRegistry::receiversOf(const ReceiverKey& key) const {
    const auto found = receivers.find(key);
    return (found == receivers.end()) ? std::vector<MessageReceiver*>() : found->second;
}

std::vector<MessageReceiver*> ReceiverRegistry::all() const {
    std::vector<MessageReceiver*> every;
    for (const auto& entry : receivers) {
        every.insert(every.end(), entry.second.begin(), entry.second.end());
    }
    return every;
}

// A lone receiver is not asked: it gets every message of its key, as it
// would without others. Among several, a message nobody owns goes to the
// first, which traces it as unknown.
template <typename Owns>
MessageReceiver* ReceiverRegistry::find(const ReceiverKey& key, Owns owns) const {
    const auto found = receivers.find(key);
    if (found == receivers.end()) {
        return nullptr;
    }
    const std::vector<MessageReceiver*>& entries = found->second;
    if (entries.size() == 1) {
        return entries.front();
    }
    for (MessageReceiver* receiver : entries) {
        if (owns(*receiver)) {
            return receiver;
        }
    }
    return entries.front();
}
