"""What the launcher benches share: a raw SNMPv2c GET of the running flag, the index of a
daemon name, and a process's CPU time."""
import os
import socket

from velmar_harness import _ber as ber, _ber_oid as ber_oid

ENTERPRISE = int(os.environ.get("VELMAR_ENTERPRISE_NUMBER", "32473"))
RUNNING = (1, 3, 6, 1, 4, 1, ENTERPRISE, 3, 17, 2, 1, 1, 2)
TICK = os.sysconf("SC_CLK_TCK")


class Getter:
    """SNMPv2c GET of one object over a UDP socket: its INTEGER value or None (no such row)."""

    def __init__(self, port):
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.connect(("127.0.0.1", port))
        self.sock.settimeout(2)
        self.rid = 1

    def get(self, oid):
        self.rid += 1
        vb = ber(0x30, ber(0x30, ber_oid(oid) + b"\x05\x00"))
        pdu = ber(0xA0, ber(0x02, self.rid.to_bytes(4, "big")) + b"\x02\x01\x00\x02\x01\x00" + vb)
        self.sock.send(ber(0x30, b"\x02\x01\x01" + ber(0x04, b"public") + pdu))
        data = self.sock.recv(65535)
        if data[-3] == 0x02 and data[-2] == 0x01:
            return data[-1]
        return None


def index(name):
    b = name.encode()
    return (len(b),) + tuple(b)


def cpu_ticks(pid):
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return int(fields[11]) + int(fields[12])
