// What the tests read and set inside a TwampTestSession: its send counters,
// its minute state, its records, its sequence tracking and its samples. A
// friend of the session, so that the production header carries none of it.
#ifndef TWAMP_TEST_SESSION_PEER_H
#define TWAMP_TEST_SESSION_PEER_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "MinuteArithmetic.h"
#include "OutstandingPacket.h"
#include "PmPeriodRecord.h"
#include "PmState.h"
#include "TwampTestSession.h"

class TwampTestSessionPeer {
  public:
    // Packets sent whole.
    static uint64_t getSentOkCount(const TwampTestSession& session) { return session.sentOkCount; }
    // Sends that failed or were partial.
    static uint64_t getSendFailedCount(const TwampTestSession& session) {
        return session.sendFailedCount;
    }
    // Timer expiries beyond one per read, accumulated.
    static uint64_t getTimerOverruns(const TwampTestSession& session) {
        return session.timerOverruns;
    }
    // errno of the last failed send, 0 after a partial one.
    static int64_t getLastSendErrno(const TwampTestSession& session) {
        return session.lastSendErrno;
    }
    // The sequence number the next packet goes out with.
    static uint32_t getSequenceNumber(const TwampTestSession& session) {
        return session.sequenceNumber;
    }
    // Sets the sequence number the next packet goes out with.
    static void setSequenceNumber(TwampTestSession& session, uint32_t next) {
        session.sequenceNumber = next;
    }
    // The packet timer's descriptor, -1 before init.
    static int getTimerFd(const TwampTestSession& session) { return session.timerFd; }
    // How many packets the session's ring holds before it must grow.
    static std::size_t getOutstandingCapacity(const TwampTestSession& session) {
        return session.outstanding.capacity();
    }
    // The outstanding packets of a minute parity, by sequence number.
    static std::vector<uint32_t> getOutstandingSeqNos(const TwampTestSession& session, int parity) {
        std::vector<uint32_t> seqNos;
        for (const uint32_t minute : session.outstanding.minutes()) {
            const std::size_t count = session.outstanding.countOf(minute);
            if (parityOf(minute) != parity || count == 0) {
                continue;
            }
            const uint32_t last = session.outstanding.lastSeqNoOf(minute);
            for (std::size_t index = 0; index < count; ++index) {
                seqNos.push_back(static_cast<uint32_t>(last - (count - 1) + index));
            }
        }
        std::sort(seqNos.begin(), seqNos.end());
        return seqNos;
    }
    // One of the two period records.
    static const PmPeriodRecord& getRecord(const TwampTestSession& session, int index) {
        return session.records[index];
    }
    // The record holds a finished interval.
    static bool isRecordComplete(const TwampTestSession& session, int index) {
        return session.recordComplete[index] != 0;
    }
    // A minute of the parity waits for its finalisation.
    static bool isMinutePending(const TwampTestSession& session, int parity) {
        return session.minutePending[parity] != 0;
    }
    // The next sender number a minute parity expects.
    static uint32_t getLastSenderSeqNo(const TwampTestSession& session, int parity) {
        return session.sequences.getLastSenderSeqNo(parity);
    }
    // The next reflector number a minute parity expects.
    static uint32_t getExpectedResponderSeqNo(const TwampTestSession& session, int parity) {
        return session.sequences.getExpectedResponderSeqNo(parity);
    }
    // The sender numbers a minute parity lists missing.
    static std::vector<uint32_t> getMissingSenderSeqNos(const TwampTestSession& session,
                                                        int parity) {
        return session.sequences.getMissingSenderSeqNos(parity);
    }
    // The reflector numbers a minute parity lists missing.
    static std::vector<uint32_t> getMissingResponderSeqNos(const TwampTestSession& session,
                                                           int parity) {
        return session.sequences.getMissingResponderSeqNos(parity);
    }
    // A reflector restart was seen since the minute started.
    static bool getSequenceErrorFlag(const TwampTestSession& session) {
        return session.sequenceErrorFlag != 0;
    }
    // How far the sender number may jump before a restart is assumed.
    static uint8_t getSequenceJumpLimit(const TwampTestSession& session) {
        return session.sequences.getJumpLimit();
    }
    // The round-trip delay samples of a minute parity; null before init.
    static const PmState* getDelayRt(const TwampTestSession& session, int parity) {
        return session.delayRt[parity].get();
    }
    // The forward IPDV samples of a minute parity; null before init.
    static const PmState* getIpdvFwd(const TwampTestSession& session, int parity) {
        return session.ipdvFwd[parity].get();
    }
    // The reverse IPDV samples of a minute parity; null before init.
    static const PmState* getIpdvRev(const TwampTestSession& session, int parity) {
        return session.ipdvRev[parity].get();
    }
    // Minimum, maximum and count of the reply DSCP, forward TTL and reverse
    // TTL trackers, in this order.
    static std::vector<uint64_t> getHeaderTrackers(const TwampTestSession& session, int parity) {
        return {
            session.dscpRev[parity].min, session.dscpRev[parity].max, session.dscpRev[parity].count,
            session.ttlFwd[parity].min,  session.ttlFwd[parity].max,  session.ttlFwd[parity].count,
            session.ttlRev[parity].min,  session.ttlRev[parity].max,  session.ttlRev[parity].count};
    }
    // Packets of a minute parity whose one-way delays wait for their successor.
    static std::size_t getIpdvHistorySize(const TwampTestSession& session, int parity) {
        return session.ipdvHistory[parity].size();
    }
    // What is known of an outstanding packet of a minute parity, null when
    // there is none.
    static std::unique_ptr<OutstandingPacket> getOutstandingPacket(TwampTestSession& session,
                                                                   int parity, uint32_t seqNo) {
        SentPacket* sent = session.findSentPacket(parity, seqNo);
        if (sent == nullptr) {
            return nullptr;
        }
        auto packet = std::make_unique<OutstandingPacket>(seqNo, sent->t1);
        packet->restore(sent->t1Prime, sent->replyCount);
        return packet;
    }
};

#endif  // TWAMP_TEST_SESSION_PEER_H
