"""The environment of the tests: the same on every machine, whatever is set, installed or running there.

To be imported before anything that looks at the environment. It leaves what says where this machine keeps its tools and
what is for the tests themselves, and sets the rest. A test that needs more gives it to the programs that it starts.
"""

import os

# Where tools, libraries and room are, and how to instrument what was built for that.
KEPT = {"PATH", "LD_LIBRARY_PATH", "TMPDIR",
        "ASAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS", "ASAN_SYMBOLIZER_PATH", "LLVM_PROFILE_FILE",
        # what CTest and people say to the tests; not to be confused with the variables of the program
        "ORLINTH", "ORLINTH_BUILD", "ORLINTH_CXX", "ORLINTH_FAULTS_NAMESPACE", "ORLINTH_FAULT_SECONDS", "ORLINTH_LOAD", "ORLINTH_SANITIZE",
        "ORLINTH_SHARE", "ORLINTH_SOURCE", "ORLINTH_TEST_SEED"}

SET = {
    "LC_ALL": "C.UTF-8",
    "TZ": "UTC",
    # nobody's home: what would read or write files of a person there finds and makes none
    "HOME": "/nonexistent",
    # an address that leads nowhere; without one, libraries look for a bus elsewhere, or even start one
    "DBUS_SESSION_BUS_ADDRESS": "unix:path=/nonexistent/session-bus",
    "DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nonexistent/system-bus",
}

UMASK = 0o022

# Of a socket's path the system takes 107 bytes; the rest is for the folders of a test and its programs.
LONGEST_TMPDIR = 40


def enter():
    for name in set(os.environ) - KEPT:
        del os.environ[name]
    if len(os.fsencode(os.environ.get("TMPDIR", ""))) > LONGEST_TMPDIR:
        del os.environ["TMPDIR"]
    os.environ.update(SET)
    os.umask(UMASK)


enter()
