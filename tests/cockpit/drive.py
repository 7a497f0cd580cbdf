"""Runs the tests of the page, each module in a private tree of its own, two at a time.

    drive.py [--pictures DIRECTORY] BUILD PAGE SERVICES [NAME]...

BUILD: where kelotlsctl and the C service are built. PAGE: what is installed for Cockpit. SERVICES: the directory
of the services as it is installed. Without names all tests. --pictures: where pictures are made anew instead of
being compared. Exit status 1 unless all have passed.
"""

import argparse
import base64
import concurrent.futures
import itertools
import os
import pathlib
import re
import signal
import subprocess
import sys
import time
import urllib.error
import urllib.request

HERE = pathlib.Path(__file__).parent
PROJECT = HERE.parent.parent
AT_A_TIME = 2
# Those that take longest begin first.
MODULES = ("test_change", "test_connection", "test_membership", "test_looks", "test_faults", "test_overview",
           "test_texts", "test_pictures")
ALONE = ("test_scale",)  # what measures


def run(build, page, services, name, pictures=None):
    """Whether they passed, and what they said."""
    users = [word for user in ("operator:1000", "viewer:1001") for word in ("--user", user)]
    writable = ["--writable", str(pictures)] if pictures else []
    environment = {**os.environ, "KELOTLS_PICTURES": str(pictures) if pictures else ""}
    result = subprocess.run(
        [PROJECT / "tests/bed/in_private_tree", "--services", services, *users, *writable, "/usr/bin/python3", "-B",
         HERE / "in_tree.py", build, page, name], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT, text=True, errors="replace", env=environment, check=False)
    return result.returncode == 0, result.stdout


def is_served(build, page, services):
    """Whether the page is reached from outside of the tree with the password that is printed, and ends when told to;
    and what is wrong."""
    serving = subprocess.Popen(["/usr/bin/python3", "-B", HERE / "serve.py", build, page, services],
                               stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
    try:
        said = ""
        for line in serving.stdout:
            said += line
            if line.startswith("Ctrl-C"):
                break
        address = re.search(r"(http://\S+)/kelotls", said)
        password = re.search(r"Password: *(\S+)", said)
        if not (address and password):
            return False, said
        codes = [log_in(address[1], word) for word in (password[1], "wrong")]
    finally:
        serving.send_signal(signal.SIGTERM)
        status = serving.wait()
    return codes == [200, 401] and status == 0, f"{said}\nlogin: {codes}, status {status}"


def log_in(address, password):
    token = base64.b64encode(f"root:{password}".encode()).decode()
    try:
        with urllib.request.urlopen(urllib.request.Request(
                f"{address}/cockpit/login", headers={"Authorization": f"Basic {token}"})) as answer:
            return answer.status
    except urllib.error.HTTPError as error:
        return error.code


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--pictures", type=pathlib.Path)
    parser.add_argument("build")
    parser.add_argument("page")
    parser.add_argument("services")
    parser.add_argument("names", nargs="*")
    arguments = parser.parse_args()
    assert sorted(MODULES + ALONE) == sorted(path.stem for path in HERE.glob("test_*.py")), "a module is in no list"
    began = time.monotonic()
    count, failed = 0, []

    def run_one(name):
        begun = time.monotonic()
        passed, said = run(*map(os.path.abspath, (arguments.build, arguments.page, arguments.services)), name,
                           arguments.pictures and arguments.pictures.resolve())
        return name, passed, said, time.monotonic() - begun

    if not arguments.names:
        served, said = is_served(arguments.build, arguments.page, arguments.services)
        count += 1
        print(f"scripts/demo --page: {'served' if served else 'FAILED'}", flush=True)
        if not served:
            failed.append("scripts/demo --page")
            print(said)
    with concurrent.futures.ThreadPoolExecutor(AT_A_TIME) as pool:
        for name, passed, said, seconds in itertools.chain(
                pool.map(run_one, arguments.names or MODULES), map(run_one, () if arguments.names else ALONE)):
            ran = re.search(r"^Ran (\d+) test", said, re.M)
            count += int(ran[1]) if ran else 0
            print(f"{name}: {ran[1] if ran else 'no'} tests, {seconds:.0f} s{'' if passed else ', FAILED'}")
            measured = re.findall(r"^(?:.*\.\.\. )?(.*: best \d+ ms.*)$", said, re.M)
            print("".join(f"  {line}\n" for line in measured), end="", flush=True)
            if not passed:
                failed.append(name)
                print(said)
    print(f"{count} tests of the page, {time.monotonic() - began:.0f} s"
          + (f", FAILED: {', '.join(failed)}" if failed else ""))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
