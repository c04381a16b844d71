#!/usr/bin/python3
"""Has every system call of the agent fail, and shows that the agent comes right by itself.

failures.py BUILD                     each use of each system call in a scenario, with each error
failures.py BUILD --allocations       each allocation of memory, alone and with 39 behind it
failures.py BUILD --netlink           each message of netlink's: lost, cut, dumps refused or given up
failures.py BUILD --short             each piece of a stream: an octet of it, and the rest later
failures.py BUILD --sample 50         some of them
failures.py BUILD --only FAULT...     these, such as sendto:ENOBUFS:3, the third sendto
failures.py BUILD --soak MINUTES      no fault: the same again and again, in one agent

The scenario: start with groups of the file, of a list and of the kernel's routes, and in another
namespace, routes that come and go, a comparison, two reloads, the link down and up, a general query,
all that can be asked, and the end. It runs in a private network with a bridge for a router, which
must know what is wanted at each resting point. The fault is made by strace in the main thread, from
main() on; with "worker:" before it in the threads beside it that there are at the word "ready",
which read files and routes, in each at its own n-th use; with "copy:" in the copy of the process that
compares. The other kinds are made in any thread, by faults.c.

An agent may refuse to start and say why; it is started again without the fault. Once it was ready it
must not end. A refused reload says so, and the next one counts. Nothing leaks, nothing spins.
Exits with 0 if all is so, and with 77 where the kernel or a missing strace forbids it.
"""

import argparse
import collections
import concurrent.futures
import contextlib
import ctypes
import functools
import http.client
import importlib.machinery
import json
import os
import pathlib
import random
import re
import shlex
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import urllib.request

sys.dont_write_bytecode = True
SCRIPTS = pathlib.Path(__file__).resolve().parents[2] / "scripts"
net = importlib.machinery.SourceFileLoader("net", str(SCRIPTS / "private-network")).load_module()

# What the kernel may answer. "=1" is a result, though the call is not made: nothing written, a packet
# that is lost on its way, the end of the heap where it was.
ERRORS = {call: errors.split() for calls, errors in (
    ("accept4", "EMFILE ENFILE ECONNABORTED EINTR ENOBUFS ENOMEM"),
    ("bind", "EADDRINUSE ENOMEM ENODEV"),
    ("brk", "=0"),
    ("capset prctl prlimit64", "EPERM"),
    ("chmod lchown", "EIO EPERM"),
    ("clone clone3", "EAGAIN ENOMEM"),
    ("connect", "EAGAIN EINTR ECONNREFUSED"),
    ("epoll_create1 eventfd2 memfd_create signalfd4 timerfd_create", "EMFILE ENFILE ENOMEM"),
    ("epoll_ctl", "ENOMEM ENOSPC"),
    ("dup2 dup3 epoll_wait rt_sigtimedwait", "EINTR"),
    ("fcntl pipe2", "EMFILE"),
    ("getsockname getsockopt", "ENOBUFS"),
    ("listen", "EADDRINUSE"),
    ("getdents64 madvise mmap mprotect munmap", "ENOMEM"),
    ("fstatfs ioctl newfstatat unlink", "EACCES EIO"),
    ("openat", "EMFILE ENFILE EACCES EIO ENOSPC"),
    ("poll", "EINTR ENOMEM"),
    ("read", "EIO EINTR"),
    ("recvfrom", "EAGAIN EINTR ECONNRESET ENOMEM"),
    ("recvmmsg", "EINTR ENETDOWN ENOMEM"),
    ("recvmsg", "ENOBUFS EINTR ENOMEM"),
    ("rename", "EIO ENOSPC EACCES"),
    ("sendmmsg", "ENOBUFS EAGAIN ENETDOWN EPERM EINTR =1"),
    ("sendto", "ENOBUFS ENOMEM ENETDOWN EAGAIN EINTR EPERM EPIPE"),
    ("setsockopt", "ENOBUFS ENOMEM ENODEV EPERM"),
    ("shutdown", "ENOTCONN"),
    ("setns", "ENOMEM"),
    ("socket", "EMFILE ENFILE ENOBUFS ENOMEM EPERM"),
    ("write", "ENOSPC EIO EINTR =0"),
) for call in calls.split()}
# Uses that cannot fail, by what strace writes of them.
SOUND = re.compile("|".join((
    r"close\(",  # whatever it answers, the descriptor is gone; strace would have it stay
    r"epoll_ctl\(.*EPOLL_CTL_(DEL|MOD)",
    r"(read|write)\(\d+<anon_inode:",  # a counter or timer that is not waited for
    # They complain of wrong arguments only, and of futex nobody knows but the C library.
    r"(timerfd_settime|futex|rt_sig(procmask|action)|alarm|lseek|rseq|set_robust_list)\(",
    r"(capget|getrandom|get\w+id|getrusage|uname|exit\w*)\(",
)))
# A sanitizer's runtime ends where it gets none of it.
MEMORY = {"brk", "mmap", "mprotect"}
LINE = re.compile(r"(?:(\d+) +)?(\d+\.\d+) (.*)")  # a thread, if there are several, the time, and words
MAIN_BEGINS = "rt_sigprocmask(SIG_BLOCK, [HUP INT USR1 TERM]"
COPY_BEGINS = "prctl(PR_SET_PDEATHSIG"
PRELOADED = "malloc", "netlink", "short"  # by faults.c

RECOVERY_SECONDS = 20
QUERY_SECONDS = 2
MEMBERSHIP_SECONDS = 30
LEAVE_SECONDS = 5
METRICS = "127.0.0.1:9123"
FIRST = f"""
metrics = {{ listen = "{METRICS}" }}
forwarding-table = {{ require-output = false }}
[interface.up0]
access-lists = ["list"]
group = {{ "239.1.1.1" = {{}}, "239.1.1.2" = {{ include = ["10.0.0.1"] }} }}
[[access-list.list]]
sequence = 10
action = "permit"
source = "10.1.1.1"
destination = "239.1.2.0/31"
[interface.up1]
vrf = "other"
group = {{ "239.1.4.1" = {{}} }}
[vrf.other]
namespace = "NAMESPACE"
"""
SECOND = FIRST.replace("239.1.1.1", "239.1.1.3").replace("239.1.2.0/31", "239.1.2.1")
QUESTIONS = [{"jsonrpc": "2.0", "id": 1, "method": method, "params": parameters}
             for method, parameters in (
                 ("why", {"interface": "up0", "group": "239.1.1.2"}), ("config", {"running": True}),
                 ("log", {"level": "info", "for": 9}), ("trace", {"last": 9}),
                 *((method, {}) for method in "status interfaces counters groups lists routes "
                                              "events metrics config".split()))]
CONFIGURED, LISTED, ROUTED = (net.wish([source], [])
                              for source in ("10.0.0.1", "10.1.1.1", "10.99.0.7"))
FIRST_WISH = {"239.1.1.1": net.wish([], []), "239.1.1.2": CONFIGURED, "239.1.2.0": LISTED,
              "239.1.2.1": LISTED}
SECOND_WISH = {"239.1.1.3": net.wish([], []), "239.1.1.2": CONFIGURED, "239.1.2.1": LISTED}


@contextlib.contextmanager
def inside(name):
    """This process, and what it starts, in the network namespace."""
    setns = ctypes.CDLL(None, use_errno=True).setns
    with open("/proc/self/ns/net") as outside, open(f"/run/netns/{name}") as there:
        if setns(there.fileno(), 0) != 0:
            raise net.Forbidden(f"{name}: {os.strerror(ctypes.get_errno())}")
        try:
            yield
        finally:
            setns(outside.fileno(), 0)


class Router:
    """Multicast routes as a routing daemon sets them, by the options of linux/mroute.h."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_IGMP)
        self.socket.setsockopt(socket.IPPROTO_IP, 200, 1)  # MRT_INIT
        self.take_interface(True)

    def take_interface(self, present):
        option, by_index = 202 if present else 203, 8  # MRT_ADD_VIF, MRT_DEL_VIF
        self.socket.setsockopt(socket.IPPROTO_IP, option, struct.pack(
            "HBBIi4x", 0, by_index, 1, 0, socket.if_nametoindex(net.INTERFACE)))

    def take_route(self, group, present):
        option = 204 if present else 205  # MRT_ADD_MFC, MRT_DEL_MFC
        self.socket.setsockopt(socket.IPPROTO_IP, option, struct.pack(
            "4s4sH32xxx12x4x", socket.inet_aton("10.99.0.7"), socket.inet_aton(group), 0))


class Scenario:
    """One run, with a fault or, where that is empty, without."""

    def __init__(self, build, folder, far, place, fault):
        self.build, self.folder, self.far, self.place = build, folder, far, place
        self.tracer, self.preloaded = ["strace", "-y", "-ttt", "-o", f"{folder}/trace"], {}
        call, error, count = fault.split(":") if fault else ("", "", "")
        if place == "copy" or call in PRELOADED:
            self.preloaded = {"LD_PRELOAD": f"{folder}/faults.so", "IHP_FAULT": fault,
                              "IHP_TRACE": f"{folder}/trace"}
            net.run("cc", "-shared", "-fPIC", "-O1", "-o", f"{folder}/faults.so",
                    str(pathlib.Path(__file__).with_name("faults.c")))
        if call in PRELOADED:
            self.tracer = []
        elif fault:
            result = f"retval{error}" if error[0] == "=" else f"error={error}"
            self.tracer.append(f"--inject={call}:{result}:when={count}")
        if place == "copy":
            self.preloaded["IHP_TRACER"] = (
                shlex.join(self.tracer) + " -q -p $1 & until grep -q 'TracerPid:.*[1-9]' "
                "/proc/$1/status; do sleep 0.01; done; kill -CONT $1")
        # How often a request may be refused: some faults last, or come in each thread.
        self.refusals = {"40": 40}.get(error, 4 if place == "worker" else 1)
        self.manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.manager.bind(f"{folder}/manager")
        self.process = None
        self.refusal = ""  # what the agent wrote as it refused to start

    def output(self):
        return net.output_of(self.folder)

    def trace(self):
        with contextlib.suppress(FileNotFoundError):
            return pathlib.Path(self.folder, "trace").read_text(errors="replace").splitlines()
        return []

    def struck(self):
        """When, and in which words, or nothing. Runs differ a little in what is the n-th use."""
        return next((LINE.match(line).groups()[1:] for line in self.trace() if "(INJECTED)" in line),
                    None)

    def is_void(self):
        """Whether it was struck by what cannot be."""
        return self.struck() is not None and SOUND.match(self.struck()[1]) is not None

    def begin(self, traced):
        tracer = [*self.tracer, "-D"] if traced and self.tracer and not self.place else []
        with open(f"{self.folder}/output", "w") as output:
            self.process = subprocess.Popen(
                [*tracer, f"{self.build}/agent/ihproxyd",
                 "--config", f"{self.folder}/file", "--status", f"{self.folder}/status.json",
                 "--state", f"{self.folder}/state", "--control", f"{self.folder}/control"],
                stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                # Looking for leaks takes a tracer of its own.
                env=dict(os.environ, NOTIFY_SOCKET=f"{self.folder}/manager",
                         WATCHDOG_USEC="4000000", ASAN_OPTIONS="detect_leaks=0",
                         **(self.preloaded if traced else {})))
        self.wait("ready", lambda: "ready" in self.output().splitlines())
        self.wait("the service manager hears of it", self.manager_hears)

    def manager_hears(self):
        """Whether a start or reload is over."""
        heard = []
        with contextlib.suppress(BlockingIOError):
            while True:
                heard.append(self.manager.recv(4096, socket.MSG_DONTWAIT))
        return b"READY=1" in heard

    def start(self):
        try:
            self.begin(traced=self.place != "worker")
        except net.Failure:
            self.refusal = self.output()
            was_ready = "ready" in self.refusal.splitlines()
            if (self.process.poll() or -1) < 0 or not self.refusal or was_ready:
                raise
            self.begin(traced=False)
        if self.place == "worker":
            beside = sorted(map(int, os.listdir(f"/proc/{self.process.pid}/task")))[1:]
            self.attached = subprocess.Popen([*self.tracer, "-p", ",".join(map(str, beside))],
                                             stderr=subprocess.PIPE, text=True)
            self.attached.stderr.readline()

    def wait(self, what, condition):
        if not net.wait_until(RECOVERY_SECONDS, self.process, self.folder, condition):
            raise net.Failure(f"not in time: {what}; the agent wrote:\n{self.output()}")

    def expect(self, when, wish):
        self.wish = wish
        self.wait(f"the bridge's groups after {when}", self.is_right)

    def is_right(self):
        return net.learned(self.far) == self.wish and \
            net.learned(self.far, "down1") == {"239.1.4.1": net.wish([], [])}

    def ask(self, command):
        return subprocess.run([f"{self.build}/agent/ihproxyctl", "--control",
                               f"{self.folder}/control", *command.split()], capture_output=True,
                              text=True, timeout=RECOVERY_SECONDS)

    def answers(self):
        """Whether all that can be asked is answered."""
        with contextlib.suppress(OSError, ValueError), socket.socket(socket.AF_UNIX) as client:
            client.settimeout(RECOVERY_SECONDS)
            client.connect(f"{self.folder}/control")
            client.sendall(json.dumps(QUESTIONS).encode() + b"\n")
            answers = json.loads(client.makefile().readline())
            return len(answers) == len(QUESTIONS) and all("result" in each for each in answers)

    def configure(self, text):
        pathlib.Path(self.folder, "file").write_text(text.replace("NAMESPACE", self.far))

    def reload_by_signal(self, text, wish):
        self.configure(text)
        for _ in range(1 + self.refusals):
            before = len(self.output())
            self.process.send_signal(signal.SIGHUP)
            self.wait("it is in force, or an error is told", lambda: net.learned(self.far) == wish or
                      "error: " in self.output()[before:])
            if net.learned(self.far) == wish:
                break
        self.expect("a reload by signal", wish)
        self.wait("the service manager hears of it", self.manager_hears)

    def reload_by_request(self, text, wish):
        self.configure(text)
        told = []
        while (done := self.ask("reload")).returncode and len(told) < self.refusals:
            told.append(done.stderr)
        if done.returncode or "" in told:
            raise net.Failure(f"reloads are refused: {told} {done.stderr}")
        self.expect("a reload by request", wish)

    def oldest(self):
        """Seconds since the bridge has heard of the group of which it has not heard for longest."""
        shown = json.loads(net.run("bridge", "-n", self.far, "-d", "-s", "-j", "mdb", "show"))
        timers = [max(float(each["timer"]) for each in (entry, *entry.get("source_list", [])))
                  for entry in shown[0]["mdb"] if entry["grp"] in self.wish and "src" not in entry]
        return MEMBERSHIP_SECONDS - min(timers)

    def figures_come(self):
        with contextlib.suppress(OSError, http.client.HTTPException):
            with urllib.request.urlopen(f"http://{METRICS}/metrics", timeout=5) as answer:
                return answer.read().endswith(b"# EOF\n")
        return False

    def figures(self):
        """Open files, seconds of the processor, kilobytes of memory."""
        folder = pathlib.Path(f"/proc/{self.process.pid}")
        times = (folder / "stat").read_text().rpartition(")")[2].split()[11:13]
        return {"descriptors": len(os.listdir(folder / "fd")),
                "seconds": sum(map(int, times)) / os.sysconf("SC_CLK_TCK"),
                "resident": int(re.search(r"VmRSS:\s*(\d+)", (folder / "status").read_text())[1])}

    def wait_descriptors(self, usual):
        self.wait("as many descriptors as usual",
                  lambda: self.figures()["descriptors"] == usual["descriptors"])

    def bridge(self, *settings):
        net.run("ip", "-n", self.far, "link", "set", "br0", "type", "bridge",
                *(str(each) for each in settings))

    def prepare(self):
        """The bridge, the second interface, and a routing daemon with one route."""
        for name, seconds in (("query", QUERY_SECONDS), ("startup_query", QUERY_SECONDS),
                              ("query_response", 1), ("last_member", 0.5),
                              ("membership", MEMBERSHIP_SECONDS)):
            self.bridge(f"mcast_{name}_interval", int(100 * seconds))
        for arguments in ("link add down1 type veth peer name up1", "link set down1 master br0 up",
                          "addr add 10.98.0.2/24 dev up1", "link set up1 up"):
            net.run("ip", "-n", self.far, *arguments.split())
        router = Router()
        router.take_route("239.3.1.1", True)
        self.configure(FIRST)
        return router

    def work(self, router):
        """All that may happen between a start and an end; the one route has become another."""
        self.expect("the start", FIRST_WISH | {"239.3.1.1": ROUTED})
        self.wait("answers", self.answers)
        router.take_route("239.3.1.2", True)
        router.take_route("239.3.1.1", False)
        routed = {"239.3.1.2": ROUTED}
        self.expect("changes of routes", FIRST_WISH | routed)
        for present in False, True:
            router.take_interface(present)
            self.expect("a reading of all routes", FIRST_WISH | (routed if present else {}))
        self.configure(SECOND)
        self.wait("a comparison", lambda: "+ 239.1.1.3" in self.ask("diff").stdout)
        self.expect("a comparison", FIRST_WISH | routed)
        self.reload_by_signal(SECOND, SECOND_WISH | routed)
        net.run("ip", "link", "set", net.INTERFACE, "down")
        self.wait("the bridge forgets its port", lambda: not net.learned(self.far))
        net.run("ip", "link", "set", net.INTERFACE, "up")
        self.expect("the link's return", SECOND_WISH | routed)
        self.reload_by_request(FIRST, FIRST_WISH | routed)
        self.wait("the status file", lambda: net.announced(self.process, self.folder) == self.wish)
        self.wait("figures", self.figures_come)
        time.sleep(1.5)
        # What comes from here on answers, after the repeats of what was told.
        self.bridge("mcast_querier", 0)
        self.bridge("mcast_querier", 1)
        self.wait("an answer to a query", lambda: self.oldest() < 1.4)

    def play(self, usual):
        """The run's figures, which must not be far above the usual ones."""
        router = self.prepare()
        self.start()
        self.work(router)
        if usual:
            self.wait_descriptors(usual)
        found = self.figures()
        self.end()
        found |= {"calls": len(self.trace()), "refusal": self.refusal,
                  "trace": [] if usual else self.trace(),
                  "struck": self.struck() is not None and not self.is_void()}
        for name, factor, slack in ("seconds", 2, 0.5), ("calls", 2, 500), ("resident", 1, 1024):
            if usual and found[name] > factor * usual[name] + slack:
                raise net.Failure(f"{found[name]} {name}, usually {usual[name]}:\n{self.output()}")
        return found

    def soak(self, seconds):
        """What the agent takes after each round, which must not grow once it has settled."""
        router, end, rounds = self.prepare(), time.monotonic() + seconds, []
        self.begin(traced=False)
        while time.monotonic() < end or len(rounds) < 6:
            self.work(router)
            router.take_route("239.3.1.1", True)
            router.take_route("239.3.1.2", False)
            rounds.append(self.figures())
        self.wait_descriptors(rounds[2])
        resident, last = rounds[2]["resident"], rounds[-1]["resident"]
        if last > 1.05 * resident + 256:
            raise net.Failure(f"{resident} kB have become {last}: {rounds}")
        self.end()
        return (f"{len(rounds)} rounds in {seconds:.0f} s: {resident} kB after the third,"
                f" {last} kB at the end, {rounds[2]['descriptors']} descriptors,"
                f" {rounds[-1]['seconds']:.1f} s of the processor")

    def end(self):
        end = time.time()
        for _ in range(1 + self.refusals):  # it may be cut off, too
            if self.ask("stop").returncode == 0 or self.process.poll() is not None:
                break
        if (status := self.process.wait(RECOVERY_SECONDS)) != 0:
            raise net.Failure(f"it ends with status {status}:\n{self.output()}")
        if self.place == "worker":
            self.attached.wait()
        # A leave that was lost now is not told again for ever; the bridge goes by its own time.
        late = self.struck() is not None and float(self.struck()[0]) > end
        limit = LEAVE_SECONDS + (MEMBERSHIP_SECONDS if late else 0)
        while left := net.learned(self.far) | net.learned(self.far, "down1"):
            if time.time() > end + limit:
                raise net.Failure(f"{left} not left in {limit} s:\n{self.output()}")
            time.sleep(0.1)
        if re.search("Sanitizer|runtime error", self.output() + self.refusal):
            raise net.Failure(self.output() + self.refusal)


@contextlib.contextmanager
def scenario_of(build, fault=""):
    """In a network of its own, with an agent that ends with it."""
    with tempfile.TemporaryDirectory() as folder, net.network() as (near, far), inside(near):
        place, fault = re.fullmatch(r"((?:worker|copy)?):?(.*)", fault).groups()
        scenario = Scenario(build, folder, far, place, fault)
        try:
            yield scenario
        finally:
            if scenario.process:
                scenario.process.kill()
                scenario.process.wait()


def run(build, usual, kept, fault):
    """The figures of a run, or what went wrong, in words."""
    with scenario_of(build, fault) as scenario:
        try:
            return scenario.play(usual.get(fault.partition(":")[0], usual.get("")))
        except Exception as failure:
            text = str(failure) if isinstance(failure, net.Failure) else repr(failure)
            return {"struck": False, "refusal": ""} if scenario.is_void() else text
        finally:
            if kept and os.path.exists(f"{scenario.folder}/trace"):
                shutil.copy(f"{scenario.folder}/trace", kept)


def offered(trace, place, exempt):
    """The faults that a run without one offers, with `place` before their names."""
    uses, begun, found = collections.Counter(), place == "worker:", {}
    for line in trace:
        thread, _, text = LINE.match(line).groups()
        name = text.partition("(")[0]
        uses[thread, name] += 1
        begun = begun or text.startswith((MAIN_BEGINS, COPY_BEGINS))
        if not begun or not name.isidentifier() or SOUND.match(text) or name in exempt:
            continue
        if name not in ERRORS:
            raise net.Failure(f"what can {name} fail with? {text}")
        for error in ERRORS[name]:
            found[f"{place}{name}:{error}:{uses[thread, name]}"] = None
    return list(found)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=os.path.abspath, help="the folder that the agent was built in")
    for option, kind in ("allocations", "malloc"), ("netlink", "netlink"), ("short", "short"):
        parser.add_argument(f"--{option}", dest="kind", action="store_const", const=kind,
                            help="these fail instead")
    parser.add_argument("--only", metavar="FAULT", nargs="+", help="these faults")
    parser.add_argument("--sample", type=int, metavar="N", help="so many faults, by chance")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--trace", metavar="FILE", help="where the last run's trace is copied to")
    parser.add_argument("--soak", type=float, metavar="MINUTES", help="no fault, one agent")
    parser.add_argument("-j", type=int, default=2 * os.cpu_count(), help="runs at the same time")
    chosen = parser.parse_args()
    if chosen.soak:
        with scenario_of(chosen.build) as scenario:
            print(scenario.soak(60 * chosen.soak))
        return 0
    if not shutil.which("strace"):
        raise net.Forbidden("there is no strace")
    exempt = MEMORY if b"__asan_init" in pathlib.Path(chosen.build, "agent/ihproxyd").read_bytes() \
        else set()
    usual, known = {}, []
    for place in [f"{chosen.kind}:none:0"] if chosen.kind else ["", "worker:", "copy:"]:
        found = run(chosen.build, {}, None, place)
        if isinstance(found, str):
            raise net.Failure(f"without a fault: {found}")
        trace = found.pop("trace")
        usual[place.partition(":")[0]] = found
        for kind, count in re.findall(r" (\S+:\S+)\((\d+)\) was the last", "\n".join(trace)):
            if kind.startswith(f"{chosen.kind}:"):
                known += [f"{kind}:{number}" for number in range(1, int(count) + 1)]
        if not chosen.kind:
            known += offered(trace, place, exempt)
    if not known:
        raise net.Forbidden("nothing can be made to fail here")
    tried = chosen.only or known
    if chosen.sample:
        tried = random.Random(chosen.seed).sample(tried, min(chosen.sample, len(tried)))
    count, begun = collections.Counter(), time.monotonic()
    play = functools.partial(run, chosen.build, usual, chosen.trace)
    try:
        with concurrent.futures.ProcessPoolExecutor(chosen.j) as runs:
            for fault, result in zip(tried, runs.map(play, tried)):
                if isinstance(result, str):
                    count["failed"] += 1
                    print(f"--only {fault}\n    " + result.replace("\n", "\n    "), flush=True)
                    continue
                refusal = result["refusal"]
                count += collections.Counter(passed=1, struck=result["struck"], refused=refusal != "")
                if refusal:
                    print(f"{fault} refuses the start: {refusal.splitlines()[-1]}", flush=True)
    finally:
        print(f"of {len(known)} faults {count['passed']} passed in {time.monotonic() - begun:.0f} s, "
              f"{count['struck']} of them came about and {count['refused']} refused the start; "
              f"{count['failed']} failed")
    return 1 if count["failed"] else 0


# As an exception it unwinds the networks.
signal.signal(signal.SIGTERM, lambda number, frame: sys.exit(128 + number))
try:
    sys.exit(main())
except net.Failure as failure:
    forbidden = isinstance(failure, net.Forbidden)
    print(f"{'skipped: ' if forbidden else ''}{failure}", file=sys.stderr)
    sys.exit(77 if forbidden else 1)
