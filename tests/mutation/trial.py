"""Tries mutants: compiles one, puts it into the libraries, and runs test cases until one fails.

Runs inside tests/bed/in_private_tree, one process for each processor. Reads trials from standard input and
answers each on standard output, a line of JSON both.
"""
import ctypes
import json
import os
import resource
import select
import shutil
import signal
import subprocess
import sys

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = os.path.join(PROJECT, "build/release")
WORK = os.path.join(PROJECT, "build/mutation")
PRIVATE = ["/usr/kelo", "/usr/libexec/security-profile", "/usr/local/libexec/security-profile"]
# What each program links as the library: the library as shipped, or a build of it whose functions
# can all be called and interposed.
SHIPPED, OPEN = "libkelotls.so.7", "libkelotls_interposable.so"
PROGRAMS = {"unit_tests": OPEN, "framework_tests": SHIPPED, "openssl_call_tests": SHIPPED,
            "platform_call_tests": SHIPPED, "system_call_tests": SHIPPED,
            "sealed_library_tests": SHIPPED,
            "flow_tests": SHIPPED, "leaving_compensation_tests": OPEN,
            "unreachable_failure_tests": OPEN}
CPU_SECONDS, WALL_SECONDS = 20, 100  # many times what the slowest case takes
CLONE_NEWNS = 0x20000
LIBC = ctypes.CDLL(None, use_errno=True)


def units():
    return sorted(name for name in os.listdir(f"{PROJECT}/src") if name.endswith(".cpp"))


def compile_options():
    """How the build compiles the library, less what costs time or refuses a mutant."""
    with open(f"{BUILD}/compile_commands.json", encoding="utf-8") as file:
        command = next(entry["command"] for entry in json.load(file)
                       if entry["file"] == f"{PROJECT}/src/files.cpp").split()
    kept = []
    for place, word in enumerate(command):
        if word.startswith(("-D", "-I", "-std")) and word != f"-I{PROJECT}/src":
            kept.append(word)
        elif word == "-isystem":
            kept += command[place:place + 2]
    return ["-O0", "-w", "-fPIC", "-U_FORTIFY_SOURCE"] + [word for word in kept
                                                        if "FORTIFY" not in word]


def compile_unit(unit, sources, objects, *more):
    return subprocess.run(
        ["g++", *compile_options(), "-I" + sources, "-include", f"{WORK}/prelude.h", *more,
         "-c", f"{sources}/{unit}", "-o", f"{objects}/{unit}.o"],
        stderr=subprocess.DEVNULL, check=False).returncode == 0


def link(library, objects, directory, *more):
    """False where the mutant calls a function that does not exist."""
    special = []
    if library == SHIPPED:
        special = [f"-Wl,--version-script={PROJECT}/src/libkelotls.map,-Bsymbolic-functions"]
    os.makedirs(directory, exist_ok=True)
    return subprocess.run(
        ["g++", "-shared", "-fuse-ld=gold", "-o", f"{directory}/{library}", f"-Wl,-soname,{library},--no-undefined",
         *special, *more, *objects, f"-L{BUILD}/platform", "-l:libkelocore.so.7",
         "-l:libkelomustache.so.7", "-ljsoncpp", "-lssl", "-lcrypto"],
        stderr=subprocess.DEVNULL, check=False).returncode == 0


def program_path(program):
    return f"{WORK}/unit_tests" if program == "unit_tests" else f"{BUILD}/tests/{program}"


def enter_fresh_tree():
    """Mounts empty private directories for one case. Runs in the case's process."""
    if LIBC.unshare(CLONE_NEWNS) != 0:
        os._exit(125)
    for directory in PRIVATE:
        if LIBC.mount(b"tmpfs", directory.encode(), b"tmpfs", 0, b"mode=0755,size=256m") != 0:
            os._exit(125)
    resource.setrlimit(resource.RLIMIT_CPU, (CPU_SECONDS, CPU_SECONDS))
    resource.setrlimit(resource.RLIMIT_AS, (1 << 32, 1 << 32))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def clear_shared_places():
    if os.path.lexists("/dev/log"):
        os.unlink("/dev/log")
    for name in os.listdir("/tmp"):
        path = os.path.join("/tmp", name)
        if f"{PROJECT}/".startswith(f"{path}/"):
            continue
        if os.path.isdir(path) and not os.path.islink(path):
            shutil.rmtree(path)
        else:
            os.unlink(path)


def run_case(program, case, directory, **environment):
    """How the case ended: "" where it passed."""
    clear_shared_places()
    process = subprocess.Popen(
        [program_path(program), f"--gtest_filter={case}"], cwd="/tmp",
        env={**os.environ, "LD_LIBRARY_PATH": f"{directory}:{BUILD}/platform", **environment},
        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
        start_new_session=True, preexec_fn=enter_fresh_tree)
    poll = select.poll()
    ended = os.pidfd_open(process.pid)
    poll.register(ended, select.POLLIN)
    in_time = bool(poll.poll(WALL_SECONDS * 1000))
    os.close(ended)
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    status = process.wait()
    if status == 125:
        sys.exit("no fresh tree can be made for a test case here")
    if not in_time or status in (-signal.SIGXCPU, -signal.SIGKILL):
        return "does not end"
    return "" if status == 0 else "fails" if status > 0 else "crashes"


def try_mutant(mutant, cases, directory):
    """What became of the mutant, and the case that told."""
    sources = f"{directory}/src"
    shutil.rmtree(sources, ignore_errors=True)
    shutil.copytree(f"{PROJECT}/src", sources)
    if mutant["file"]:
        with open(f"{PROJECT}/{mutant['file']}", encoding="utf-8") as file:
            text = file.read()
        with open(f"{directory}/{mutant['file']}", "w", encoding="utf-8") as file:
            file.write(text[:mutant["start"]] + mutant["new"] + text[mutant["end"]:])
    unit = os.path.basename(mutant["file"])
    changed = [unit] if unit in units() else units()  # a header reaches all of them
    if not all(compile_unit(unit, sources, directory) for unit in changed):
        return {"result": "does not compile"}
    objects = [f"{directory if unit in changed else WORK + '/objects'}/{unit}.o" for unit in units()]
    linked = set()
    for program, case in cases:
        library = PROGRAMS[program]
        if library not in linked and not link(library, objects, f"{directory}/lib"):
            return {"result": "does not compile"}
        linked.add(library)
        how = run_case(program, case, f"{directory}/lib")
        if how:
            return {"result": "killed", "how": how, "case": case}
    return {"result": "survived"}


def lines_run(program, case, directory):
    """The lines of src/ that the case reaches, how it ended, and the processor's time it took."""
    for name in os.listdir(directory):
        if name.endswith(".gcda"):
            os.unlink(f"{directory}/{name}")
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    how = run_case(program, case, f"{WORK}/coverage", GCOV_PREFIX=directory, GCOV_PREFIX_STRIP="99")
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    report = subprocess.run(
        "gcov --stdout --json-format *.gcda", shell=True, cwd=directory, check=True,
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout.decode()
    reached = set()
    for text in report.splitlines():
        for file in json.loads(text)["files"]:
            if file["file"].startswith(f"{PROJECT}/src/"):
                name = file["file"][len(PROJECT) + 1:]
                reached.update((name, line["line_number"]) for line in file["lines"]
                               if line["count"] > 0)
    return {"how": how, "lines": sorted(reached),
            "seconds": after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime}


def protect_devices():
    """Makes the device files, which are the host's, read-only: a mutant run by root could change
    their modes."""
    for name in ("null", "zero", "full", "random", "urandom", "tty"):
        subprocess.run(["mount", "-o", "remount,bind,ro", f"/dev/{name}"], check=True)


def main():
    directory = sys.argv[1]
    protect_devices()
    for place in PRIVATE:
        os.makedirs(place, exist_ok=True)
    for request in sys.stdin:
        trial = json.loads(request)
        if "coverage" in trial:
            answer = lines_run(*trial["coverage"], directory)
        else:
            answer = try_mutant(trial["mutant"], trial["cases"], directory)
        print(json.dumps(answer), flush=True)


if __name__ == "__main__":
    main()
