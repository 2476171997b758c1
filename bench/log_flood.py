#!/usr/bin/python3
"""The log under a flood of SNMPv3 requests with a forged HMAC (anyone who knows a user
name can send them): starts velmar-snmp-agent with a v3 user, sends REQUESTS such requests
over loopback, and prints the lines and bytes the agent's log received.

    bench/log_flood.py [--agent BIN] [--module SO] [--requests N]

Prints one line: agent, requests sent, reports received, seconds, log lines, log bytes, and
the lines of the agent's own (those not from Net-SNMP's refusals). Asserts nothing.
"""

import argparse
import os
import socket
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "agent"))
import velmar_harness as h  # noqa: E402

USER = b"ops"


def forged_get(engine_id, boots, etime, request_id):
    """A v3 GET with the auth flag and an HMAC of zeros."""
    usm = h._ber(0x30, h._ber(0x04, engine_id) + h._ber_int(boots) + h._ber_int(etime) + h._ber(0x04, USER) +
                 h._ber(0x04, b"\x00" * 12) + h._ber(0x04, b""))
    header = h._ber(0x30, h._ber_int(request_id) + h._ber_int(65507) + h._ber(0x04, b"\x05") + h._ber_int(3))
    varbind = h._ber(0x30, h._ber_oid(h.ROOT) + b"\x05\x00")
    pdu = h._ber(0xA0, h._ber_int(request_id) + h._ber_int(0) + h._ber_int(0) + h._ber(0x30, varbind))
    scoped = h._ber(0x30, h._ber(0x04, engine_id) + h._ber(0x04, b"") + pdu)
    return h._ber(0x30, h._ber_int(3) + header + h._ber(0x04, usm) + scoped)


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--agent", default=h.AGENT or None, help="velmar-snmp-agent binary (default: $VELMAR_AGENT)")
    ap.add_argument("--module", default=os.environ.get("VELMAR_MODULE"), help="module library (default: beside the agent)")
    ap.add_argument("--requests", type=int, default=40000)
    ap.add_argument("--window", type=int, default=64, help="requests in flight")
    args = ap.parse_args()
    if not args.agent:
        ap.error("give --agent or set VELMAR_AGENT")
    tmp = h.TempDir()
    try:
        state = tmp.file("state.json")
        h.write_state(state, {"daemons": {"a": {"config": {"enabled": True, "options": {}}}}})
        config = tmp.file("access.conf")
        with open(config, "w") as f:
            f.write('createUser ops SHA "authpass123" AES "privpass123"\nrouser ops auth\n')
        log = tmp.file("agent.log")
        extra = ["--config", config, "--log", "file:" + log]
        if args.module:
            extra += ["--module", args.module]
        agent = h.Process([args.agent, "--state", state, "--listen", "udp:127.0.0.1:%d" % h.free_port()] + extra,
                          None, ready=lambda: os.path.exists(log) and "serving VELMAR" in open(log).read())
        port = int(agent.argv[agent.argv.index("--listen") + 1].rsplit(":", 1)[1])
        try:
            engine_id, boots, etime = h.v3_discover(port)
            sent = answered = 0
            start = time.time()
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
                s.settimeout(1.0)
                packet = forged_get(engine_id, boots, etime, 0x1234)
                inflight = 0
                while sent < args.requests or inflight > 0:
                    while sent < args.requests and inflight < args.window:
                        s.sendto(packet, ("127.0.0.1", port))
                        sent += 1
                        inflight += 1
                    try:
                        s.recv(65535)
                        answered += 1
                        inflight -= 1
                    except socket.timeout:
                        inflight = 0   # the rest were dropped
            seconds = time.time() - start
            time.sleep(1.5)   # a summary line, if any, is written within a second
        finally:
            agent.stop()
        with open(log, "rb") as f:
            data = f.read()
        lines = data.splitlines()
        own = [l for l in lines if b"Authentication failed" not in l and b"more line" not in l]
        print("agent %s: %d forged requests sent, %d reports, %.1f s: log %d lines, %d bytes (%d other lines)"
              % (args.agent, sent, answered, seconds, len(lines), len(data), len(own)))
    finally:
        tmp.cleanup()


if __name__ == "__main__":
    main()
