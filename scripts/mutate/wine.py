"""A place in which tests run: a Wine prefix with its server and a virtual screen of its own."""

import os
import signal
import subprocess
import time
from dataclasses import dataclass


@dataclass
class Run:
    status: int
    seconds: float
    output: str
    timed_out: bool = False

    @property
    def passed(self):
        return self.status == 0 and not self.timed_out


class Place:
    def __init__(self, root, folder, build, number):
        self.root = root
        self.prefix = folder / f"wine-{number}"
        self.output = folder / f"output-{number}.txt"
        self.screen = None
        self.holder = None
        self.closing = False
        self.environment = dict(
            os.environ, WINEPREFIX=str(self.prefix), KEYWARDEN_WINEPREFIX=str(self.prefix),
            KEYWARDEN_BUILD=str(build), WINEDEBUG="-all", WINEDLLOVERRIDES="mscoree,mshtml=",
            WINEDLLPATH=str(build / "winelib"), GTEST_FAIL_FAST="1")
        for name in ("NV_MUTANT", "NV_MUTANT_RECORD", "DISPLAY"):
            self.environment.pop(name, None)

    def start(self):
        self.call(self.root / "scripts" / "setup.sh")
        reading, writing = os.pipe()
        self.screen = subprocess.Popen(
            ["Xvfb", "-displayfd", str(writing), "-screen", "0", "1280x1024x24", "-nolisten",
             "tcp"], pass_fds=[writing], stderr=subprocess.DEVNULL, start_new_session=True)
        os.close(writing)
        with os.fdopen(reading) as answer:
            self.environment["DISPLAY"] = ":" + answer.readline().strip()
        self.start_server()

    def start_server(self):
        """The processes that the tests share are started before the first test."""
        self.stop_server()
        self.call("wineserver", "-p")
        # The desktop's process ends with the last program that needs it, and each test that needs
        # it would have it start anew; so this one needs it all along.
        self.holder = subprocess.Popen(
            ["wine", "rundll32", "user32.dll,WaitMessage"], env=self.environment,
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            start_new_session=True)
        time.sleep(2)

    def stop_server(self):
        for option in ("-k", "-w"):
            subprocess.run(["wineserver", option], env=self.environment, check=False,
                           capture_output=True)
        if self.holder is not None:
            self.holder.wait()
            self.holder = None

    def stop(self):
        self.closing = True
        self.stop_server()
        if self.screen is not None:
            self.screen.terminate()
            self.screen.wait()

    def clear_store(self):
        """Certificates that a mutant has published are not to meet the next one's tests."""
        self.call("wine", "reg", "delete", r"HKCU\Software\Microsoft\SystemCertificates\My", "/f",
                  check=False)

    def call(self, *command, check=True):
        # To a file, because what Wine starts on the way may hold a pipe open.
        with self.output.open("w") as output:
            done = subprocess.run(list(map(str, command)), env=self.environment, check=False,
                                  stdin=subprocess.DEVNULL, stdout=output, stderr=output)
        if check and done.returncode != 0:
            raise RuntimeError(f"{command[0]} failed: {self.output.read_text(errors='replace')}")

    def run(self, command, limit, more):
        """One run of a test with more in its environment."""
        if command[0].endswith("/run-under-wine"):
            # What that does is done here, and the output of a test that must be ended is kept.
            command = ["wine", *command[1:]]
        if self.closing:
            raise RuntimeError("the run was interrupted")
        begun = time.monotonic()
        timed_out = False
        with self.output.open("w") as output:
            process = subprocess.Popen(command, env=self.environment | more, stdout=output,
                                       stderr=output, stdin=subprocess.DEVNULL,
                                       start_new_session=True)
            try:
                process.wait(limit)
            except subprocess.TimeoutExpired:
                timed_out = True
                self.end(process)
        if self.closing:
            raise RuntimeError("the run was interrupted")  # its status says nothing
        seconds = time.monotonic() - begun
        if timed_out:
            self.start_server()  # children of the test may be left
        text = self.output.read_text(errors="replace").replace("\r", "")
        return Run(process.returncode, seconds, text, timed_out)

    @staticmethod
    def end(process):
        for number in (signal.SIGTERM, signal.SIGKILL):
            try:
                os.killpg(process.pid, number)
                process.wait(5)
                return
            except ProcessLookupError:
                return
            except subprocess.TimeoutExpired:
                continue
        process.wait()
