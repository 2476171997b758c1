"""A private supervisord for tests: Debian's supervisord with its own configuration,
Unix socket (or 127.0.0.1 on a free port), logs and included program files in a temporary
directory, started in the foreground and stopped by process id. Programs are plain
/bin/sleep and /bin/sh commands.
"""

import os
import shutil
import signal
import subprocess
import tempfile
import time

SUPERVISORD = shutil.which("supervisord") or "/usr/bin/supervisord"
SUPERVISORCTL = shutil.which("supervisorctl") or "/usr/bin/supervisorctl"


class SupervisordUnavailable(Exception):
    pass


def quoted(path):
    """A path for a supervisord command line (split like a shell's)."""
    return '"' + path.replace("\\", "\\\\").replace('"', '\\"') + '"'


class Supervisord:
    """programs: {section name: body lines}; listener: the velmar-supervisor-events binary to
    run as an event listener (None: no listener); inet_port: serve XML-RPC on
    127.0.0.1:inet_port instead of a Unix socket; auth: (user, password) or None."""

    def __init__(self, programs, listener=None, inet_port=None, auth=None):
        if not os.access(SUPERVISORD, os.X_OK):
            raise SupervisordUnavailable("supervisord is not installed (Debian's supervisor package)")
        self.dir = tempfile.mkdtemp(prefix="velmar-sup-")
        self.socket = os.path.join(self.dir, "supervisor.sock")
        self.events = os.path.join(self.dir, "events.sock")
        self.include = os.path.join(self.dir, "programs")
        os.mkdir(self.include)
        self.inet_port = inet_port
        self.auth = auth
        self.conf = os.path.join(self.dir, "supervisord.conf")
        self.proc = None
        lines = []
        if inet_port:
            lines += ["[inet_http_server]", "port=127.0.0.1:%d" % inet_port]
            self.url = "http://127.0.0.1:%d" % inet_port
        else:
            lines += ["[unix_http_server]", "file=%s" % self.socket, "chmod=0700"]
            self.url = "unix://" + self.socket
        if auth:
            lines += ["username=%s" % auth[0], "password=%s" % auth[1]]
        lines += ["[supervisord]", "logfile=%s" % os.path.join(self.dir, "supervisord.log"),
                  "pidfile=%s" % os.path.join(self.dir, "supervisord.pid"),
                  "childlogdir=%s" % self.dir, "nodaemon=true", "loglevel=info",
                  "[rpcinterface:supervisor]",
                  "supervisor.rpcinterface_factory = supervisor.rpcinterface:make_main_rpcinterface",
                  "[supervisorctl]", "serverurl=%s" % self.url]
        if auth:
            lines += ["username=%s" % auth[0], "password=%s" % auth[1]]
        lines += ["[include]", "files=%s/*.conf" % self.include]
        with open(self.conf, "w") as f:
            f.write("\n".join(lines) + "\n")
        for name, body in programs.items():
            self.add(name, body)
        if listener:
            self.add("eventlistener:velmar-events",
                     ["command=%s %s" % (quoted(listener), quoted(self.events)),
                      "events=PROCESS_STATE,PROCESS_GROUP,TICK_5"])
        self.start()

    def add(self, section, body):
        """Writes [section] to its own included file (read by the next reread or start)."""
        with open(self._file(section), "w") as f:
            f.write("[%s]\n%s\n" % (section, "\n".join(body)))

    def remove(self, section):
        os.unlink(self._file(section))

    def _file(self, section):
        return os.path.join(self.include, section.replace(":", "_") + ".conf")

    def start(self, timeout=15.0):
        self.proc = subprocess.Popen([SUPERVISORD, "-c", self.conf], stdin=subprocess.DEVNULL,
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, cwd=self.dir)
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if self.proc.poll() is not None:
                raise RuntimeError("supervisord exited with %s; log:\n%s" % (self.proc.returncode, self.log()))
            rc, out = self.ctl("pid", check=False)
            if rc == 0 and out.strip() == str(self.proc.pid):
                return
            time.sleep(0.05)
        self.stop()
        raise RuntimeError("supervisord did not answer in %.0f s; log:\n%s" % (timeout, self.log()))

    def stop(self, timeout=15.0):
        """Stops supervisord (and so its programs) by its process id."""
        if self.proc and self.proc.poll() is None:
            os.kill(self.proc.pid, signal.SIGTERM)
            try:
                self.proc.wait(timeout)
            except subprocess.TimeoutExpired:
                os.kill(self.proc.pid, signal.SIGKILL)
                self.proc.wait(5)

    def cleanup(self):
        self.stop()
        shutil.rmtree(self.dir, ignore_errors=True)

    def log(self):
        try:
            with open(os.path.join(self.dir, "supervisord.log"), errors="replace") as f:
                return f.read()[-4000:]
        except OSError:
            return ""

    def ctl(self, *args, check=True, timeout=30):
        p = subprocess.run([SUPERVISORCTL, "-c", self.conf] + list(args), stdout=subprocess.PIPE,
                           stderr=subprocess.STDOUT, text=True, timeout=timeout, cwd=self.dir)
        if check and p.returncode not in (0, 3):   # 3: some process is not running, for status
            raise RuntimeError("supervisorctl %s failed (%d): %s" % (" ".join(args), p.returncode, p.stdout))
        return (p.returncode, p.stdout) if not check else p.stdout

    def status(self):
        """{name as supervisorctl prints it: (state, pid or None)}."""
        out = self.ctl("status")
        found = {}
        for line in out.splitlines():
            parts = line.split()
            if len(parts) < 2:
                continue
            pid = None
            if len(parts) > 3 and parts[2] == "pid":
                pid = int(parts[3].rstrip(","))
            found[parts[0]] = (parts[1], pid)
        return found

    def wait_state(self, name, state, timeout=15.0):
        """Waits until supervisorctl shows name in state; returns its pid."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            got = self.status().get(name)
            if got and got[0] == state:
                return got[1]
            time.sleep(0.05)
        raise RuntimeError("%s did not reach %s in %.0f s: %s" % (name, state, timeout, self.status()))
