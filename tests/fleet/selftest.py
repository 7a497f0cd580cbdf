"""Plants a fault at a time in a copy of the collection, and sees the drive find it where it should.
Exit status 1 where one goes unnoticed.

    selftest.py COLLECTIONS BUILD SERVICES
"""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

from trees import HERE

COLLECTION = "ansible_collections/kelotls/appliance"
COUNT = "4"
FAULTS = (
    # what it is; file; the line; what takes its place; the steps to take; the step that has to fail
    ("a module that always has changed something", "plugins/action/kelotls_apply.py",
     '        "changed": bool(services),', '        "changed": True,', ("install", "run_again"),
     "run again"),
    ("a check mode that foretells too little", "plugins/action/kelotls_level.py",
     '            "changed": any(row["changed"] for row in services),',
     '            "changed": any(row["changed"] for row in services) and not self.is_check,',
     ("install",), "install"),
    ("a check mode that writes", "plugins/plugin_utils/appliance.py",
     '        return ["--dry-run"] if self.is_check else []', "        return []",
     ("install",), "install"),
    ("a difference that is not told", "plugins/plugin_utils/appliance.py",
     '    return [{"prepared": element["diff"]} for element in rendered\n',
     '    return [{"prepared": element["diff"]} for element in rendered[1:]\n',
     ("install",), "install"),
    ("a rollout that foretells the levels there are", "roles/kelotls_rollout/vars/main.yml",
     "  | combine(dict(kelotls_rollout_rows | map(attribute='service') "
     "| zip(kelotls_rollout_rows | map(attribute='after')))) }}\"", '  }}"',
     ("install", "roll_out_to_all"), "roll out to all"),
    ("a rollout that takes nothing back", "roles/kelotls_rollout/tasks/take_back.yml",
     "  when: kelotls_rollout_before.levels is defined", "  when: false",
     ("install", "roll_out_to_a_server_that_cannot_follow"),
     "roll out to a server that cannot follow"),
    ("a search for drift that asks no server", "roles/kelotls_drift/tasks/found.yml",
     "rejectattr('good')", "rejectattr('verdict')",
     ("install", "roll_out_to_all", "find_what_was_changed_by_hand"),
     "find what was changed by hand"),
)


def drive(collections: pathlib.Path, build: str, services: str, steps: tuple[str, ...]) -> str:
    words = [word for step in steps for word in ("--step", step)]
    result = subprocess.run(
        ["/usr/bin/python3", "-B", os.path.join(HERE, "drive.py"), "--count", COUNT, *words,
         collections, build, services], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT, text=True, check=False)
    return result.stdout


def main() -> int:
    source, build, services = sys.argv[1:]
    status = 0
    for what, name, line, replacement, steps, failing in FAULTS:
        with tempfile.TemporaryDirectory() as directory:
            collections = pathlib.Path(directory)
            shutil.copytree(pathlib.Path(source) / COLLECTION, collections / COLLECTION)
            path = collections / COLLECTION / name
            text = path.read_text()
            assert text.count(line) == 1, f"{name}: the line to replace is not there"
            path.write_text(text.replace(line, replacement))
            said = drive(collections, build, services, steps)
        is_found = f"\n{failing}: FAILED" in said
        print(f"{what}: {'found' if is_found else 'NOT FOUND'}", flush=True)
        if not is_found:
            print(said)
            status = 1
    return status


if __name__ == "__main__":
    sys.exit(main())
