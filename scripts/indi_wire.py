"""The INDI driver's scripts' view of the wire: an indiserver with the driver
against the simulator (private HOME and XDG directories, loopback only, under
a time limit), a raw INDI client over TCP, the simulator's control socket, and
a checker of the conventions INDI clients rely on.

Used by scripts/indi-bench and scripts/indi-lifecycle-test.
"""
import os
import re
import selectors
import shutil
import socket
import subprocess
import tempfile
import time
import xml.etree.ElementTree as ET


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Server:
    """indiserver running one driver, in a temporary HOME; stop() ends both."""

    def __init__(self, driver, simdir, units, limit):
        self.work = tempfile.mkdtemp(prefix="nkr-indi.")
        simdir = os.path.abspath(simdir)
        env = dict(os.environ)
        env.update(HOME=self.work, XDG_RUNTIME_DIR=os.path.join(self.work, "run"),
                   XDG_CONFIG_HOME=os.path.join(self.work, ".config"),
                   XDG_DATA_HOME=os.path.join(self.work, ".local/share"),
                   XDG_CACHE_HOME=os.path.join(self.work, ".cache"),
                   XDG_STATE_HOME=os.path.join(self.work, ".local/state"),
                   LD_LIBRARY_PATH=simdir,
                   NKR_BLE_HELPER=os.path.join(simdir, "libhidapi-hidraw.so.0"),
                   NKR_SIM_UNITS=units, NKR_SIM_CONTROL=os.path.join(self.work, "sim-%p.sock"))
        os.mkdir(env["XDG_RUNTIME_DIR"], 0o700)
        self.port = free_port()
        self.log_path = os.path.join(self.work, "server.log")
        self.log = open(self.log_path, "w")
        self.process = subprocess.Popen(
            ["timeout", str(limit), "indiserver", "-p", str(self.port), "-u",
             os.path.join(self.work, "indiserver.sock"), "-v", os.path.abspath(driver)],
            env=env, stdout=self.log, stderr=self.log)

    def driver_pid(self):
        text = open(self.log_path).read()
        return int(text.split("pid=")[1].split()[0]) if "pid=" in text else None

    def control(self):
        return Control(os.path.join(self.work, f"sim-{self.driver_pid()}.sock"))

    def stop(self, keep=None):
        self.process.terminate()
        try:
            self.process.wait(5)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.log.close()
        if keep:
            shutil.copy(self.log_path, keep)
        shutil.rmtree(self.work, ignore_errors=True)


class Control:
    """The simulator's control socket in the driver process."""

    def __init__(self, path):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.settimeout(15)
        for _ in range(50):
            try:
                self.sock.connect(path)
                break
            except OSError:
                time.sleep(0.1)
        else:
            raise RuntimeError(f"no simulator control socket at {path}")
        self.buffer = b""

    def send(self, line):
        self.sock.sendall(line.encode() + b"\n")

    def answer(self):
        while b"\n" not in self.buffer:
            chunk = self.sock.recv(256)
            if not chunk:
                raise RuntimeError("control socket closed")
            self.buffer += chunk
        line, self.buffer = self.buffer.split(b"\n", 1)
        text = line.decode()
        if not text.startswith("ok"):
            raise RuntimeError("simulator: " + text)
        return text

    def ask(self, line):
        self.send(line)
        return self.answer()


class Client:
    """A raw INDI client: sends XML, keeps every element the server sends with
    its arrival time, and hands each to the checker (when there is one)."""

    def __init__(self, port, device, checker=None, transcript=None):
        self.device = device
        self.checker = checker
        self.transcript = transcript
        for _ in range(50):
            try:
                self.sock = socket.create_connection(("127.0.0.1", port), timeout=5)
                break
            except OSError:
                time.sleep(0.1)
        else:
            raise RuntimeError("indiserver did not come up")
        self.sock.setblocking(False)
        self.parser = ET.XMLPullParser(events=("start", "end"))
        self.parser.feed("<stream>")
        self.depth = 0
        self.history = []  # every element so far
        self.mark = 0      # where the history stood at the last command sent
        self.get_properties()

    def send(self, xml):
        self.mark = len(self.history)
        self.sock.setblocking(True)
        self.sock.sendall(xml.encode())
        self.sock.setblocking(False)

    def get_properties(self, name=None):
        if self.checker:
            self.checker.new_round()
        named = f' device="{self.device}" name="{name}"' if name else ""
        self.send(f'<getProperties version="1.7"{named}/>')

    def set_number(self, name, **values):
        items = "".join(f'<oneNumber name="{k}">{v}</oneNumber>' for k, v in values.items())
        self.send(f'<newNumberVector device="{self.device}" name="{name}">{items}</newNumberVector>')

    def set_switch(self, name, element):
        self.send(f'<newSwitchVector device="{self.device}" name="{name}">'
                  f'<oneSwitch name="{element}">On</oneSwitch></newSwitchVector>')

    def set_text(self, name, **values):
        items = "".join(f'<oneText name="{k}">{v}</oneText>' for k, v in values.items())
        self.send(f'<newTextVector device="{self.device}" name="{name}">{items}</newTextVector>')

    def read(self):
        """Top-level elements completed by the bytes available now."""
        try:
            data = self.sock.recv(65536)
        except BlockingIOError:
            return []
        if not data:
            raise RuntimeError("indiserver closed the connection")
        now = time.monotonic()
        if self.transcript:
            self.transcript.write(data.decode(errors="replace"))
        self.parser.feed(data)
        done = []
        for event, element in self.parser.read_events():
            if event == "start":
                self.depth += 1
                continue
            self.depth -= 1
            if self.depth == 1:
                element.set("_at", now)
                if self.checker:
                    self.checker.see(element, now)
                done.append(element)
        self.history += done
        return done

    def wait(self, predicate, timeout, what="the INDI stream", since=None):
        """The first element that matches, among those that came since the
        last command (or since that index) and those still to come."""
        start = self.mark if since is None else since
        for element in self.history[start:]:
            if predicate(element):
                return element
        end = time.monotonic() + timeout
        sel = selectors.DefaultSelector()
        sel.register(self.sock, selectors.EVENT_READ)
        try:
            while time.monotonic() < end:
                sel.select(0.05)
                for element in self.read():
                    if predicate(element):
                        return element
        finally:
            sel.close()
        raise RuntimeError(f"timed out waiting for {what}")

    def drain(self, seconds):
        """Everything that arrives within that time."""
        got = []
        end = time.monotonic() + seconds
        sel = selectors.DefaultSelector()
        sel.register(self.sock, selectors.EVENT_READ)
        while time.monotonic() < end:
            sel.select(0.05)
            got += self.read()
        sel.close()
        return got


def is_vector(element, name, state=None, device=None):
    return (element.tag.startswith(("set", "def")) and element.get("name") == name and
            (device is None or element.get("device") == device) and
            (state is None or element.get("state") == state))


def number(element, name):
    for child in element:
        if child.get("name") == name:
            return float(child.text.strip())
    return None


def values(element):
    return {child.get("name"): (child.text or "").strip() for child in element}


class Checker:
    """Faults against what INDI clients rely on, seen on one client's stream:
    a property set before it is defined (or after it is deleted), a property
    defined twice in one getProperties answer, a number outside its min..max,
    a Busy that ends anything but Ok or Alert, a move that shows Busy at its
    final position just before Ok, and a message repeated unchanged within a
    second. For the properties own(name) picks (the driver's own, beside
    libindi's standard ones): a label that fits a client's label column, and
    a unit on every number; every label unique within its group (tab)."""

    LABEL_LENGTH = 12
    UNIT = re.compile(r"\(|°C|µm|steps|%|mV|mA")

    def __init__(self, device, own=lambda name: False):
        self.device = device
        self.own = own
        self.labels = {}      # (group, label) -> property name
        self.faults = []
        self.defined = {}     # name -> {element: (min, max)}
        self.states = {}      # name -> its latest state
        self.round = 0
        self.defined_in_round = {}
        self.busy = {}        # name -> time it turned Busy
        self.last_busy_value = None
        self.messages = {}    # text -> time last seen
        self.message_count = 0

    def fault(self, text):
        if text not in self.faults:
            self.faults.append(text)

    def new_round(self):
        self.round += 1

    def see(self, e, now):
        if e.get("device") not in (None, self.device):
            return
        name = e.get("name")
        text = e.get("message")
        if text:
            self.message_count += 1
            seen = self.messages.get(text)
            if seen is not None and now - seen < 1.0:
                self.fault(f"message repeated within {now - seen:.2f} s: {text}")
            self.messages[text] = now
        if e.tag == "delProperty":
            if name:
                self.defined.pop(name, None)
                if name in self.busy:
                    self.fault(f"{name} deleted while Busy")
                    self.busy.pop(name)
            else:
                self.defined.clear()
                self.busy.clear()
            return
        if e.tag.startswith("def"):
            # Round 1 is left out: a client that connects while the driver
            # starts gets its answer to indiserver's own first request too.
            if name in self.defined and self.defined_in_round.get(name) == self.round and self.round > 1:
                self.fault(f"{name} defined twice in one getProperties answer")
            self.defined_in_round[name] = self.round
            self.check_labels(name, e)
            self.defined[name] = {c.get("name"): (c.get("min"), c.get("max")) for c in e}
        elif e.tag.startswith("set"):
            if name not in self.defined:
                self.fault(f"{name} set before it is defined")
                return
            for c in e:
                if c.get("min") is not None:
                    self.defined[name][c.get("name")] = (c.get("min"), c.get("max"))
        else:
            return
        if e.tag.endswith("NumberVector"):
            self.check_ranges(name, e)
        self.check_states(name, e, now)

    def check_labels(self, name, e):
        label, group = e.get("label") or name, e.get("group")
        if self.labels.setdefault((group, label), name) != name:
            self.fault(f"{name} and {self.labels[(group, label)]} are both labelled '{label}' in {group}")
        if not self.own(name):
            return
        if len(label) > self.LABEL_LENGTH:
            self.fault(f"{name}: label '{label}' is longer than {self.LABEL_LENGTH} characters")
        if e.tag == "defNumberVector":
            for c in e:
                if not self.UNIT.search(c.get("label") or ""):
                    self.fault(f"{name}.{c.get('name')}: no unit in '{c.get('label')}'")

    def check_ranges(self, name, e):
        for c in e:
            low, high = self.defined.get(name, {}).get(c.get("name"), (None, None))
            try:
                value, low, high = float(c.text), float(low), float(high)
            except (TypeError, ValueError):
                continue
            if low < high and not low <= value <= high:
                self.fault(f"{name}.{c.get('name')} = {value:g} outside {low:g}..{high:g}")

    def check_states(self, name, e, now):
        state = e.get("state")
        self.states[name] = state
        if name in self.busy and state not in ("Busy", "Ok", "Alert"):
            self.fault(f"{name} went from Busy to {state}")
        if state == "Busy":
            self.busy.setdefault(name, now)
            if name == "ABS_FOCUS_POSITION":
                self.last_busy_value = number(e, "FOCUS_ABSOLUTE_POSITION")
            return
        was_busy = self.busy.pop(name, None) is not None
        if was_busy and name == "ABS_FOCUS_POSITION" and state == "Ok":
            if self.last_busy_value == number(e, "FOCUS_ABSOLUTE_POSITION"):
                self.fault("ABS_FOCUS_POSITION showed Busy at the final position before Ok")

    def finish(self):
        for name in self.busy:
            self.fault(f"{name} still Busy at the end")
        return self.faults
