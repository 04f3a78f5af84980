// A test peer on the ITC stand-in:
//   itc_probe send SERVICE SIGNO WAIT_MS   sends a 24-byte signal with number
//       SIGNO to the mailbox SERVICE and waits WAIT_MS for any answer; prints
//       "no reply" (exit 0) or "reply 0x<number>" (exit 1)
//   itc_probe hold NAME SECONDS            opens a mailbox NAME that never
//       answers, for SECONDS
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "itc.h"

union itc_msg {
    uint32_t sigNo;
};

namespace {

int usage() {
    std::fprintf(stderr, "usage: itc_probe send SERVICE SIGNO WAIT_MS | hold NAME SECONDS\n");
    return 2;
}

itc_mbox_id_t openOwnMailbox(const std::string& name) {
    if (itc_init(1, 0, nullptr, nullptr, 0) != 0) {
        std::perror("itc_init");
        return ITC_NO_ID;
    }
    const itc_mbox_id_t id = itc_create_mailbox(name.c_str(), 0);
    if (id == ITC_NO_ID) {
        std::perror("itc_create_mailbox");
    }
    return id;
}

int send(const char* service, uint32_t sigNo, int32_t waitMs) {
    const itc_mbox_id_t own = openOwnMailbox("itc-probe-" + std::to_string(getpid()));
    const itc_mbox_id_t target = itc_locate(service);
    if (own == ITC_NO_ID || target == ITC_NO_ID) {
        std::fprintf(stderr, "itc_probe: no mailbox %s\n", service);
        return 2;
    }
    union itc_msg* msg = itc_alloc(24, sigNo);
    if (msg == nullptr || itc_send(&msg, target, own) != 0) {
        std::perror("itc_send");
        return 2;
    }
    union itc_msg* reply = itc_receive(ITC_NOFILTER, waitMs, ITC_FROM_ALL);
    int status = 0;
    if (reply == nullptr) {
        std::printf("no reply\n");
    } else {
        std::printf("reply 0x%08x\n", reply->sigNo);
        itc_free(&reply);
        status = 1;
    }
    itc_delete_mailbox(own);
    return status;
}

int hold(const char* name, unsigned seconds) {
    const itc_mbox_id_t own = openOwnMailbox(name);
    if (own == ITC_NO_ID) {
        return 2;
    }
    std::printf("holding %s\n", name);
    std::fflush(stdout);
    sleep(seconds);
    itc_delete_mailbox(own);
    return 0;
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc == 5 && std::strcmp(argv[1], "send") == 0) {
        return send(argv[2], static_cast<uint32_t>(std::strtoul(argv[3], nullptr, 0)),
                    static_cast<int32_t>(std::strtol(argv[4], nullptr, 10)));
    }
    if (argc == 4 && std::strcmp(argv[1], "hold") == 0) {
        return hold(argv[2], static_cast<unsigned>(std::strtoul(argv[3], nullptr, 10)));
    }
    return usage();
}
