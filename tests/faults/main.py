"""Injects faults into real transfers and counts what came of each. Called by scripts/faults, which explains it."""

import argparse
import multiprocessing
import os
import pathlib
import queue
import random
import shutil
import subprocess
import sys
import tempfile
import threading
import traceback

SLOW_LANES = 24
NAMESPACE = "ORLINTH_FAULTS_NAMESPACE"


def options_of(arguments):
    parser = argparse.ArgumentParser(prog="scripts/faults", add_help=False)
    parser.add_argument("--orlinth", required=True)
    parser.add_argument("--faults", type=int, default=300)
    parser.add_argument("--seed", type=int, default=None)
    parser.add_argument("--way", choices=("send", "outbox", "both"), default="both")
    parser.add_argument("--only", type=int, action="append")
    parser.add_argument("--jobs", type=int, default=len(os.sched_getaffinity(0)) + 2)
    parser.add_argument("--bad-cases", type=int, default=20)
    parser.add_argument("--log", type=lambda path: open(path, "w", encoding="utf-8"))
    options = parser.parse_args(arguments)
    if options.faults < 1 or options.jobs < 1:
        parser.error("--faults and --jobs must be at least 1")
    if options.seed is None:
        options.seed = random.SystemRandom().randrange(2**32)
    return options


def enter_namespace():
    """Goes on in a mount namespace of its own, if the system allows one, so that small disks can be made there."""
    if NAMESPACE in os.environ:
        return
    os.environ[NAMESPACE] = ""
    for options in (["--mount"], ["--user", "--map-root-user", "--mount"]):
        probe = ["unshare", *options, "sh", "-c", "mount -t tmpfs tmpfs /tmp && mount -o remount,size=1m /tmp"]
        if subprocess.run(probe, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False).returncode == 0:
            os.environ[NAMESPACE] = "yes"
            os.execvp("unshare", ["unshare", *options, sys.executable, "-B", *sys.argv])
    print("Cannot mount file systems here. Full disks are simulated by a limit on the file size.",
          file=sys.stderr)


def can_mount():
    return os.environ[NAMESPACE] == "yes"


def work(number, folder, options, todo, results):
    """One worker: a world of its own, and case after case."""
    from cases import make_case
    from trials import run_case
    from worlds import World
    sys.setswitchinterval(0.0005)  # the relay and the readers of events must not wait for each other
    world = None
    generation = 0
    try:
        while (index := todo.get()) is not None:
            case = make_case(options.seed, index, options.way)
            try:
                if world is None:
                    generation += 1
                    world = World(pathlib.Path(folder) / f"{number}-{generation}", can_mount())
                results.put((run_case(world, case), None, None))
            except Exception:  # the machinery's own failure: told, and begun anew
                results.put((None, case, traceback.format_exc()))
                if world is not None:
                    world.close()
                world = None
    except KeyboardInterrupt:
        pass
    finally:
        if world is not None:
            world.close()


def run(options, folder):
    from cases import make_case
    from report import Report
    indices = sorted(set(options.only or range(options.faults)))
    slow = [index for index in indices if make_case(options.seed, index, options.way).is_slow]
    quick = sorted(set(indices) - set(slow))
    report = Report(options, len(indices))
    results = multiprocessing.Queue()
    workers = []
    queues = []
    for cases, count in ((slow, SLOW_LANES), (quick, options.jobs)):
        todo = multiprocessing.SimpleQueue()
        lanes = min(count, len(cases))
        queues.append((todo, [*cases, *[None] * lanes]))
        for _ in range(lanes):
            worker = multiprocessing.Process(target=work, args=(len(workers), folder, options, todo, results))
            worker.start()
            workers.append(worker)
    for todo, items in queues:
        # on a thread of its own: a pipe holds only so many until somebody takes them
        threading.Thread(target=lambda todo=todo, items=items: [todo.put(item) for item in items], daemon=True).start()
    try:
        collect(indices, results, workers, report, options)
    except KeyboardInterrupt:
        for worker in workers:
            worker.join(30)
        report.print()
        return 130
    for worker in workers:
        worker.join()
    report.print()
    return 0 if report.is_good() else 1


def collect(indices, results, workers, report, options):
    from report import story
    for _ in indices:
        while True:
            try:
                result, case, trouble = results.get(timeout=5)
                break
            except queue.Empty:
                if not any(worker.is_alive() for worker in workers):
                    raise RuntimeError("the workers have died") from None
        if result is None:
            report.add_trouble(case, trouble)
            continue
        report.add(result)
        if options.only:
            print(story(result), flush=True)
        if options.log and result.verdict.faults:
            print(story(result), file=options.log, flush=True)


def main():
    options = options_of(sys.argv[1:])
    os.environ["ORLINTH"] = str(pathlib.Path(options.orlinth).resolve())
    enter_namespace()
    folder = tempfile.mkdtemp(prefix="orlinth-faults-")
    is_mounted = can_mount() and subprocess.run(
        ["mount", "-t", "tmpfs", "-o", "mode=0700", "tmpfs", folder], check=False).returncode == 0
    try:
        return run(options, folder)
    finally:
        if is_mounted:
            subprocess.run(["umount", "-l", folder], check=False)
        shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
