"""Root for tests that mount, make networks or look into other processes, whoever runs them.

To be imported before anything else of the tests. Run by root, it does nothing. Otherwise it starts the test program anew,
as root of a user namespace of its own, with mounts and a network of its own (loopback) and an empty /run, all of which
end with the program. Where the system allows nobody user namespaces, the test program fails, and unshare(1) says why.
"""

import os
import sys

if os.geteuid() != 0:
    os.execvp("unshare", ["unshare", "--user", "--map-root-user", "--mount", "--net", "--", "sh", "-ec",
                          'mount -t tmpfs tmpfs /run; ip link set lo up; exec "$@"', "sh", sys.executable, *sys.orig_argv[1:]])
