"""Parts of the project, built anew from sources that were changed on purpose."""

import json
import pathlib
import shutil
import subprocess
import sys

FAULTS = pathlib.Path(__file__).resolve().parent
PROJECT = FAULTS.parent.parent
LIBRARY, COMMAND = "libkelotls.so.7", "tools/kelotlsctl"


def run(command, **options):
    ended = subprocess.run(command, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                           **options)
    if ended.returncode:
        sys.exit(f"{command}\n{ended.stdout}")
    return ended.stdout


def build_patched(build, directory, patch, units, targets=(LIBRARY,)):
    """These targets of the build directory, with these units compiled anew from patched sources."""
    shutil.copytree(PROJECT / "src", directory / "src")
    if patch:
        run(["patch", "--quiet", "--fuzz=0", "-p1", "-d", directory, "-i", patch])
    links = {target: run(["ninja", "-C", build, "-t", "commands", "-s", target]).replace(
        f"-o {target}", f"-o {directory}/{pathlib.Path(target).name}") for target in targets}
    for compilation in json.loads((build / "compile_commands.json").read_text()):
        command, unit = compilation["command"], pathlib.Path(compilation["file"]).name
        compiled = command.split(" -o ")[1].split()[0]
        if unit in units and compiled.startswith("CMakeFiles/kelotls_core.dir/src/"):
            command = command.replace(str(PROJECT / "src"), str(directory / "src"))
            run(command.replace(compiled, f"{directory}/{unit}.o"), shell=True, cwd=build)
            links = {target: link.replace(compiled, f"{directory}/{unit}.o") for target, link in links.items()}
    for link in links.values():
        linking = [line for line in link.splitlines() if "-o " in line]
        run(linking[-1], shell=True, cwd=build)
