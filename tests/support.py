"""What the tests of the running program share."""

import json
import os
import subprocess
import time

HELPER = os.environ.get("CORVELLE_HELPER", "")


class Pipes:
    """The helper on bare pipes, as an add-on in another language would drive it."""

    def __init__(self, *arguments, **options):
        options.setdefault("stderr", subprocess.PIPE)
        self.process = subprocess.Popen(
            [HELPER, *arguments], stdin=subprocess.PIPE, stdout=subprocess.PIPE, **options
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
