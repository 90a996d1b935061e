"""What the tests of the running program share."""

import json
import os
import subprocess
import time

import numpy as np

HELPER = os.environ.get("CORVELLE_HELPER", "")


class Pipes:
    """The helper on bare pipes, as an add-on in another language would drive it."""

    def __init__(self, *arguments, program=HELPER, **options):
        options.setdefault("stderr", subprocess.PIPE)
        self.process = subprocess.Popen(
            [program, *arguments], stdin=subprocess.PIPE, stdout=subprocess.PIPE, **options
        )

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
            if stream is not None and not stream.closed:
                try:
                    stream.close()
                except BrokenPipeError:
                    pass

    def send(self, data):
        self.process.stdin.write(data)
        self.process.stdin.flush()

    def read(self):
        return json.loads(self.process.stdout.readline())

    def ask(self, **request):
        self.send(json.dumps(request).encode() + b"\n")
        return self.read()

    def finish(self, data=b""):
        """Sends the last data, ends the input, and gives (exit code, output, standard error)."""
        out, err = self.process.communicate(data, timeout=60)
        return self.process.returncode, out, err


def run(*arguments, data=b"", **options):
    """Exit code, output and standard error of one whole run."""
    done = subprocess.run([HELPER, *arguments], input=data, capture_output=True, timeout=60, **options)
    return done.returncode, done.stdout, done.stderr


def regions_of(pid):
    """The names of shared memory that a process's number stands in."""
    return sorted(name for name in os.listdir("/dev/shm") if name.startswith("corvelle_%d_" % pid))


def is_running(pid):
    """False for a zombie too."""
    try:
        with open("/proc/%d/stat" % pid) as stat:
            return stat.read().rpartition(")")[2].split()[0] not in "ZX"
    except FileNotFoundError:
        return False


def wait_until(condition, seconds=10.0):
    """Whether the condition came true in time."""
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.01)
    return True


def array_of(reference):
    """A copy of an array of an answer, read as any program would: by its name, offset and type."""
    count = int(np.prod(reference["shape"], dtype=np.int64))
    path = "/dev/shm/" + reference["shm"]
    flat = np.fromfile(path, reference["dtype"], count, offset=reference["offset"])
    return flat.reshape(reference["shape"])


def contents(value):
    """An answer with the contents of its arrays in the places of their references."""
    if isinstance(value, dict):
        if "shm" in value and "shape" in value:
            return [value["dtype"], value.get("scope"), array_of(value).tolist()]
        return {key: contents(item) for key, item in value.items()}
    return [contents(item) for item in value] if isinstance(value, list) else value


ABSENT = object()  #: in a table of bad inputs: the field is not there


def failure(reply):
    """ "code: message" of a failed request, "ok" of any other."""
    if reply["ok"]:
        return "ok"
    return "%s: %s" % (reply["error"]["code"], reply["error"]["message"])


class Groom:
    """One session of a helper on bare pipes."""

    def __init__(self, helper, **fields):
        self.helper = helper
        self.number = self.result(helper.ask(cmd="new_session", **fields))["session"]

    @staticmethod
    def result(reply):
        assert reply["ok"], reply
        return reply["result"]

    def ask(self, cmd, /, **fields):
        fields = {key: value for key, value in fields.items() if value is not ABSENT}
        return self.helper.ask(**{"cmd": cmd, "session": self.number, **fields})

    def do(self, cmd, /, **fields):
        """The answer's result; the request must succeed."""
        return self.result(self.ask(cmd, **fields))

    def state(self):
        """All that a host can read of the session without changing it."""
        questions = {
            "options": ("set_options", {}),
            "time": ("set_time", {}),
            "scalp": ("get_scalp", {"space": "groom"}),
            "host": ("get_scalp", {}),
            "flat": ("get_guides", {"source": "flat", "space": "groom"}),
            "flatRest": ("get_guides", {"source": "flat", "pose": "rest", "space": "groom"}),
            "hierarchy": ("get_guides", {"source": "hierarchy", "space": "groom"}),
            "hierarchyRest": ("get_guides", {"source": "hierarchy", "pose": "rest", "space": "groom"}),
            "graph": ("get_graph", {}),
            "status": ("node_status", {}),
        }
        return {name: contents(self.do(cmd, **fields)) for name, (cmd, fields) in questions.items()}


def check_bad_inputs(test, groom, command, good, cases):
    """Each case is (field, value, "code: message"): `good` with that one field changed must fail so,
    leave the session as it was, and the process answering. Then `good` itself must pass."""
    before = groom.state()
    for field, value, expected in cases:
        with test.subTest(command=command, field=field, value=repr(value)[:80]):
            reply = groom.ask(command, **{**good, field: value})
            test.assertEqual(failure(reply), expected)
            test.assertEqual(groom.state(), before)
    test.assertEqual(failure(groom.ask(command, **good)), "ok")
