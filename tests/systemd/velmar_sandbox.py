"""The systemd sandbox (tests/systemd/sandbox) from Python: boots it, finds its systemd,
runs commands inside it, and kills it by process id (also when the process that started it
dies: its unshare gets SIGKILL as a death signal).

    sb = Sandbox(units_dir)          # raises SandboxUnavailable with the reason to skip
    sb.run("systemctl stop velmar-long")
    sb.bus                           # unix:path=/proc/PID/root/run/dbus/system_bus_socket
    sb.stop()
"""

import ctypes
import os
import signal
import subprocess
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SCRIPT = os.path.join(HERE, "sandbox")
UNITS = os.path.join(HERE, "units")

PR_SET_PDEATHSIG = 1


class SandboxUnavailable(Exception):
    """This machine cannot boot the sandbox; the message says why."""


def _die_with_parent():
    ctypes.CDLL(None, use_errno=True).prctl(PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0)


def _read(path):
    try:
        with open(path) as f:
            return f.read().strip()
    except OSError:
        return ""


def check():
    """None when the sandbox can boot here, else the reason."""
    p = subprocess.run([SCRIPT, "--check"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=30)
    return None if p.returncode == 0 else (p.stdout.strip() or "the sandbox check failed")


class Sandbox:
    def __init__(self, units=UNITS, boot_timeout=60.0):
        why = check()
        if why:
            raise SandboxUnavailable(why)
        self.log_path = None
        self.proc = subprocess.Popen([SCRIPT, units], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                     stderr=subprocess.DEVNULL, preexec_fn=_die_with_parent)
        self.systemd_pid = None
        try:
            self._wait_boot(boot_timeout)
        except Exception:
            self.stop()
            raise

    def _wait_boot(self, timeout):
        # The script runs helpers of its own before it execs unshare: only unshare's child is
        # the sandbox (the script again, which then execs systemd).
        deadline = time.time() + timeout
        while time.time() < deadline:
            if self.proc.poll() is not None:
                raise RuntimeError("the sandbox exited at start (%d)" % self.proc.returncode)
            pid = self._child()
            if pid and _read("/proc/%d/comm" % pid) == "systemd" and \
                    os.path.exists("/proc/%d/root/run/dbus/system_bus_socket" % pid):
                self.systemd_pid = pid
                break
            time.sleep(0.05)
        else:
            raise RuntimeError("the sandbox's systemd or its bus did not come up in %.0f s" % timeout)
        self.run("systemctl is-system-running --wait >/dev/null; true", timeout=max(1.0, deadline - time.time()))

    def _child(self):
        """unshare's child, once the script has become unshare; else None."""
        if _read("/proc/%d/comm" % self.proc.pid) != "unshare":
            return None
        pids = _read("/proc/%d/task/%d/children" % (self.proc.pid, self.proc.pid)).split()
        return int(pids[0]) if pids else None

    @property
    def bus(self):
        return "unix:path=/proc/%d/root/run/dbus/system_bus_socket" % self.systemd_pid

    def run(self, command, timeout=30.0, check=True):
        """Runs a shell command inside the sandbox; returns its standard output. Raises
        RuntimeError (with the output) when it fails and check is true."""
        p = subprocess.run(["nsenter", "-t", str(self.systemd_pid), "-a", "sh", "-c", command],
                           stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                           errors="replace", timeout=timeout)
        if check and p.returncode != 0:
            raise RuntimeError("in the sandbox, %r failed (%d): %s%s" % (command, p.returncode, p.stdout, p.stderr))
        return p.stdout

    def stop(self):
        """Kills the sandbox's systemd (and so everything in it) and removes what the
        sandbox left on the host. Safe to repeat."""
        if self.proc is None:
            return
        pid = self.systemd_pid or self._child()
        if pid:
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        try:
            self.proc.wait(15)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait(5)
        subprocess.run([SCRIPT, "--cleanup", str(self.proc.pid)], timeout=60)
        self.proc = None
