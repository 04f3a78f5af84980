#!/usr/bin/env python3
"""Writes the seed inputs of the fuzz targets into corpus/<target>/, one
small valid example per file, named for what it is. Run it again after a
change of an input layout (see the comment at the top of each target)."""
import os
import shutil
import struct
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
CORPUS = os.path.join(HERE, "corpus")

NTP_UNIX_OFFSET = 2208988800
# The fuzzed session sends sequence number n at FIRST_SEND + n seconds.
FIRST_SEND = 1699999680
SENT_PACKETS = 8
REFLECTOR_PORT = 862
SOURCE_PORT = 4000
REFLECTOR4 = bytes([192, 0, 2, 7])
SOURCE4 = bytes([127, 0, 0, 1])
REFLECTOR6 = bytes([0x20, 0x01, 0x0D, 0xB8] + [0] * 11 + [7])
SOURCE6 = bytes([0] * 15 + [1])

SOL_SOCKET, SCM_TIMESTAMPING, SO_RXQ_OVFL = 1, 37, 40
IPPROTO_IP, IP_TOS, IP_TTL = 0, 1, 2
IPPROTO_IPV6, IPV6_HOPLIMIT, IPV6_TCLASS = 41, 52, 67


def ntp(seconds, nanoseconds=0):
    return ((seconds + NTP_UNIX_OFFSET) << 32) | ((nanoseconds << 23) // 1953125)


def t1_of(seq):
    return ntp(FIRST_SEND + seq)


def cmsg(level, kind, data):
    """One control message as the kernel writes it on x86-64, padded to 8."""
    header = struct.pack("<QiI", 16 + len(data), level, kind)
    body = header + data
    return body + bytes((-len(body)) % 8)


def timestamping(seconds, nanoseconds):
    """SCM_TIMESTAMPING: software, legacy and raw hardware time, all the same."""
    stamp = struct.pack("<qq", seconds, nanoseconds)
    return cmsg(SOL_SOCKET, SCM_TIMESTAMPING, stamp * 3)


def reply_control(family, seq, ttl=63, tos=0xB8):
    control = timestamping(FIRST_SEND + seq, 2000000)
    if family == 6:
        control += cmsg(IPPROTO_IPV6, IPV6_HOPLIMIT, struct.pack("<i", ttl))
        control += cmsg(IPPROTO_IPV6, IPV6_TCLASS, struct.pack("<i", tos))
    else:
        control += cmsg(IPPROTO_IP, IP_TTL, struct.pack("<i", ttl))
        control += cmsg(IPPROTO_IP, IP_TOS, bytes([tos]))
    return control


def sender_packet(seq, size=64):
    """The test packet the session sent: sequence number, T1, error estimate, padding."""
    head = struct.pack(">IQH", seq, t1_of(seq), 0x0586)
    return head + bytes([0x5A]) * (size - len(head))


def reflected_packet(seq, reflector_seq=None, size=64, t1=None):
    t1 = t1_of(seq) if t1 is None else t1
    t2 = t1 + (1 << 22)
    t3 = t2 + (1 << 20)
    reflector_seq = seq if reflector_seq is None else reflector_seq
    head = struct.pack(">IQHHQIQHHB", reflector_seq, t3, 0xA001, 0, t2, seq, t1, 0x0586, 0, 64)
    return head + bytes(size - len(head))


def udp(payload, source_port=SOURCE_PORT, destination_port=REFLECTOR_PORT):
    return struct.pack(">HHHH", source_port, destination_port, 8 + len(payload), 0) + payload


def ipv4(payload, options=b""):
    ihl = 5 + len(options) // 4
    header = struct.pack(">BBHHHBBH4s4s", 0x40 | ihl, 0, 20 + len(options) + len(payload), 1, 0,
                         64, 17, 0, SOURCE4, REFLECTOR4)
    return header + options + payload


def ipv6(payload, next_header=17, extension=b""):
    header = struct.pack(">IHBB16s16s", 0x60000000, len(extension) + len(payload), next_header, 64,
                         SOURCE6, REFLECTOR6)
    return header + extension + payload


def ethernet(packet, ethertype, vlan=False):
    addresses = bytes([0x02, 0, 0, 0, 0, 2, 0x02, 0, 0, 0, 0, 1])
    if vlan:
        return addresses + struct.pack(">HHH", 0x8100, 7, ethertype) + packet
    return addresses + struct.pack(">H", ethertype) + packet


def looped_frame(family, seq, layer="bare"):
    segment = udp(sender_packet(seq))
    packet = ipv6(segment) if family == 6 else ipv4(segment)
    ethertype = 0x86DD if family == 6 else 0x0800
    if layer == "ethernet":
        return ethernet(packet, ethertype)
    if layer == "vlan":
        return ethernet(packet, ethertype, vlan=True)
    return packet


def tx_control(seq):
    return timestamping(FIRST_SEND + seq, 10000)


def block(data):
    return struct.pack("<H", len(data)) + data


# ---- itc_dispatcher ----

CREATE, DELETE, REQUEST, RAW = 0, 1, 2, 3
KEY = bytes(range(0x10, 0x20))


def create_signal(address=b"192.0.2.7", port=862, key=KEY, rate=10, dscp=46, size=200,
                  offset=7, base=5000):
    body = struct.pack("<I46sH16sIIIIiII", 0x01A11401, address, port, key, rate, dscp, 0, 0, size,
                       offset, base)
    assert len(body) == 96
    return body


def delete_signal(key=KEY):
    return struct.pack("<I16s", 0x01A11403, key)


def request_signal(key=KEY, completed=0):
    return struct.pack("<I16sB3x", 0x01A11404, key, completed)


def signal_step(kind, body, sender=2):
    return bytes([0, sender, kind]) + block(body)


def empty_step(errno):
    return bytes([1, errno])


def time_step(seconds, expiries=1):
    return bytes([2]) + struct.pack("<hB", seconds, expiries)


def itc_dispatcher_seeds():
    create = signal_step(CREATE, create_signal())
    minutes = b"".join(time_step(60) for _ in range(3))
    return {
        "create_ipv4": create,
        "create_ipv6": signal_step(CREATE, create_signal(address=b"2001:db8::7")),
        "create_hostname": signal_step(CREATE, create_signal(address=b"reflector.example")),
        "create_unterminated_address": signal_step(CREATE, create_signal(address=b"1" * 46)),
        "create_size_below_limit": signal_step(CREATE, create_signal(size=40)),
        "create_twice_same_key": create + create,
        "create_delete": create + signal_step(DELETE, delete_signal()),
        "create_minutes_request": create + minutes + signal_step(REQUEST, request_signal()),
        "create_request_completed_deferred": create + signal_step(REQUEST, request_signal(
            completed=1)) + b"".join(time_step(300, 2) for _ in range(4)),
        "create_clock_back": create + time_step(90) + time_step(-120) + time_step(60),
        "request_unknown_key": signal_step(REQUEST, request_signal(key=bytes(16))),
        "delete_unknown_key": signal_step(DELETE, delete_signal(key=bytes(16))),
        "unknown_signal_number": signal_step(RAW, struct.pack("<I", 0x01A11405) + bytes(30)),
        "empty_receive_timed_out": empty_step(110),
        "empty_receive_other_errno": empty_step(11),
    }


# ---- udp_receive ----

FAMILY4, FAMILY6 = 0, 1
REPLY, FRAME, BATCH, FAILURE, READ, TIME = range(6)


def message(payload, control, source=0, flags=0):
    return bytes([source, flags]) + block(payload) + block(control)


def reply_step(family, seq, **kwargs):
    fam = 6 if family == FAMILY6 else 4
    source = kwargs.pop("source", 0)
    flags = kwargs.pop("flags", 0)
    control = kwargs.pop("control", None)
    control = reply_control(fam, seq) if control is None else control
    return bytes([REPLY]) + message(reflected_packet(seq, **kwargs), control, source, flags)


def frame_step(family, seq, layer="bare"):
    fam = 6 if family == FAMILY6 else 4
    return bytes([FRAME]) + message(looped_frame(fam, seq, layer), tx_control(seq))


def read_step():
    return bytes([READ])


def receive_time_step(seconds, expiries=1):
    return bytes([TIME, seconds, expiries])


def udp_receive_seeds():
    seeds = {}
    for family, name in ((FAMILY4, "ipv4"), (FAMILY6, "ipv6")):
        answered = b"".join(frame_step(family, n) + reply_step(family, n)
                            for n in range(SENT_PACKETS))
        seeds[name + "_timestamp_then_reply"] = (bytes([family]) + answered + read_step() +
                                                 receive_time_step(60) + receive_time_step(60))
        seeds[name + "_reply_then_timestamp"] = bytes([family]) + b"".join(
            reply_step(family, n) + read_step() + frame_step(family, n) + read_step()
            for n in range(4))
        seeds[name + "_duplicate_reply"] = bytes([family]) + frame_step(family, 2) + reply_step(
            family, 2) + reply_step(family, 2) + read_step()
        seeds[name + "_lost_and_late"] = bytes([family]) + b"".join(
            frame_step(family, n) for n in range(SENT_PACKETS)) + reply_step(family, 0) + \
            reply_step(family, 5) + reply_step(family, 3) + read_step() + receive_time_step(60)
    seeds["ipv4_ethernet_frames"] = bytes([FAMILY4]) + b"".join(
        frame_step(FAMILY4, n, "ethernet") + reply_step(FAMILY4, n) for n in range(3))
    seeds["ipv4_vlan_frames"] = bytes([FAMILY4]) + b"".join(
        frame_step(FAMILY4, n, "vlan") + reply_step(FAMILY4, n) for n in range(3))
    seeds["ipv6_vlan_frames"] = bytes([FAMILY6]) + b"".join(
        frame_step(FAMILY6, n, "vlan") + reply_step(FAMILY6, n) for n in range(3))
    seeds["ipv4_reply_from_other_port"] = bytes([FAMILY4]) + frame_step(FAMILY4, 1) + reply_step(
        FAMILY4, 1, source=1)
    seeds["ipv4_reply_control_truncated"] = bytes([FAMILY4]) + frame_step(FAMILY4, 1) + \
        reply_step(FAMILY4, 1, flags=2)
    seeds["ipv4_reply_without_control"] = bytes([FAMILY4]) + frame_step(FAMILY4, 1) + reply_step(
        FAMILY4, 1, control=b"")
    seeds["ipv4_reply_echoing_other_minute"] = bytes([FAMILY4]) + frame_step(FAMILY4, 1) + \
        reply_step(FAMILY4, 1, t1=t1_of(61))
    seeds["ipv4_short_reply"] = bytes([FAMILY4, REPLY]) + message(reflected_packet(1)[:40],
                                                                  reply_control(4, 1))
    seeds["ipv4_batches_and_failure"] = bytes([FAMILY4]) + frame_step(FAMILY4, 0) + bytes(
        [BATCH, 1, FAILURE, 0, 11, FAILURE, 1, 4]) + reply_step(FAMILY4, 0) + read_step()
    seeds["ipv4_reflector_restart"] = bytes([FAMILY4]) + b"".join(
        frame_step(FAMILY4, n) + reply_step(FAMILY4, n, reflector_seq=(n if n < 4 else n - 4))
        for n in range(SENT_PACKETS)) + read_step() + receive_time_step(60)
    # The kernel's drop count grows between two replies: the pending minute
    # is declared unaccountable at its finalisation.
    seeds["ipv4_receive_queue_overflow"] = bytes([FAMILY4]) + b"".join(
        frame_step(FAMILY4, n) + reply_step(
            FAMILY4, n, control=reply_control(4, n) + cmsg(SOL_SOCKET, SO_RXQ_OVFL,
                                                           struct.pack("<I", 3 * (n // 4))))
        for n in range(SENT_PACKETS)) + read_step() + receive_time_step(60)
    return seeds


# ---- looped_frame ----

def looped_seed(family_byte, control, frame):
    return bytes([family_byte]) + block(control) + frame


def looped_frame_seeds():
    seeds = {}
    for family, name in ((4, "ipv4"), (6, "ipv6")):
        selector = 1 if family == 6 else 0
        for layer in ("bare", "ethernet", "vlan"):
            seeds["%s_%s" % (name, layer)] = looped_seed(selector, tx_control(3),
                                                         looped_frame(family, 3, layer))
        seeds[name + "_truncated"] = looped_seed(selector, tx_control(3),
                                                 looped_frame(family, 3)[:30])
        seeds[name + "_without_timestamp"] = looped_seed(selector, b"", looped_frame(family, 3))
    options = bytes([0x94, 0x04, 0, 0])  # router alert
    seeds["ipv4_options"] = looped_seed(0, tx_control(4), ipv4(udp(sender_packet(4)), options))
    seeds["ipv4_options_ethernet"] = looped_seed(
        0, tx_control(4), ethernet(ipv4(udp(sender_packet(4)), options), 0x0800))
    hop_by_hop = bytes([17, 0, 5, 2, 0, 0, 1, 0])  # router alert, then UDP
    seeds["ipv6_hop_by_hop"] = looped_seed(1, tx_control(4),
                                           ipv6(udp(sender_packet(4)), 0, hop_by_hop))
    seeds["ipv6_hop_by_hop_ethernet"] = looped_seed(
        1, tx_control(4), ethernet(ipv6(udp(sender_packet(4)), 0, hop_by_hop), 0x86DD))
    seeds["ipv4_timestamp_cut_short"] = looped_seed(0, tx_control(3)[:40], looped_frame(4, 3))
    seeds["other_family"] = looped_seed(17, tx_control(3), looped_frame(4, 3))
    seeds["empty"] = looped_seed(0, b"", b"")
    return seeds


# ---- itc_wire ----

def wire(body, sender=0x00020002, receiver=0x00010001, magic=0x31435449, version=1, length=None):
    length = len(body) if length is None else length
    return struct.pack("<IIIII", magic, version, sender, receiver, length) + body


def itc_wire_seeds():
    return {
        "create_signal": wire(create_signal()),
        "counters_request": wire(request_signal()),
        "signal_number_only": wire(struct.pack("<I", 0x01A11403)),
        "shorter_than_number": wire(b"\x01\x14"),
        "length_mismatch": wire(delete_signal(), length=40),
        "other_mailbox": wire(delete_signal(), receiver=0x00030003),
        "wrong_magic": wire(delete_signal(), magic=0x32435449),
        "header_only_cut": wire(b"")[:12],
    }


# ---- ctl_options and reflector_options ----

def argv(*arguments):
    return b"\0".join(a.encode() for a in arguments)


def ctl_options_seeds():
    hex_id = "00112233445566778899aabbccddeeff"
    return {
        "create_all_options": argv("twamp", "create", "--id", hex_id, "--dst", "192.0.2.7",
                                   "--port", "862", "--rate", "10", "--dscp", "46", "--size",
                                   "200", "--offset", "7", "--spreading-base", "5000",
                                   "--spare1", "1", "--spare2", "2"),
        "create_ipv6_label": argv("twamp", "--service", "twamp6", "create", "--id", "lab-1",
                                  "--dst", "2001:db8::7", "--port", "862"),
        "delete": argv("twamp", "--timeout", "2.5", "delete", "--id", hex_id),
        "counters_json": argv("twamp", "counters", "--id", "lab-1", "--completed", "--wait",
                              "--json"),
        "counters_csv": argv("twamp", "counters", "--id", "lab-1", "--csv"),
        "help": argv("twamp", "--help"),
        "rate_out_of_range": argv("twamp", "create", "--id", "x", "--dst", "192.0.2.7", "--port",
                                  "862", "--rate", "10001"),
    }


def reflector_options_seeds():
    return {
        "listen_and_loss": argv("--listen", "::", "--port", "862", "--fwd-loss", "2.5",
                                "--rev-loss", "1"),
        "impairments_equals": argv("--seed=7", "--duplicate=1", "--reorder=5", "--fwd-delay=5",
                                   "--fwd-jitter=1", "--rev-delay=2", "--rev-jitter=0.5"),
        "restarts": argv("--restart-every", "100", "--restart-after", "50", "--restart-gap",
                         "3", "--restart-gap-ms", "250"),
        "corrupting_reflector": argv("--skew", "-3.5", "--corrupt-t1", "60000", "--sender-ttl",
                                     "0", "--stateless", "--reply-ttl", "64"),
        "unreachable": argv("--unreachable-after", "20", "--unreachable-ms", "1500"),
        "truth_quiet": argv("--truth", "/tmp/truth.jsonl", "--quiet"),
        "help": argv("--help"),
        "end_of_options": argv("--", "--port"),
    }


TARGETS = {
    "itc_dispatcher": itc_dispatcher_seeds,
    "udp_receive": udp_receive_seeds,
    "looped_frame": looped_frame_seeds,
    "itc_wire": itc_wire_seeds,
    "ctl_options": ctl_options_seeds,
    "reflector_options": reflector_options_seeds,
}


def main():
    for target, seeds in TARGETS.items():
        directory = os.path.join(CORPUS, target)
        shutil.rmtree(directory, ignore_errors=True)
        os.makedirs(directory)
        for name, data in seeds().items():
            with open(os.path.join(directory, name), "wb") as out:
                out.write(data)
    return 0


if __name__ == "__main__":
    sys.exit(main())
