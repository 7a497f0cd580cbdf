"""Drives a fleet of appliances through the collection's playbooks, and looks at the appliances
themselves to see what came of it.

    drive.py [--count N] COLLECTIONS BUILD SERVICES

COLLECTIONS: a directory with ansible_collections/kelotls/appliance. BUILD: where the programs are
built. SERVICES: the directory of the services as it is installed. Runs in a private tree.
"""

import argparse
import contextlib
import dataclasses
import functools
import hashlib
import json
import os
import pathlib
import shutil
import stat
import subprocess
import sys
import time

from controller import Controller, Run
from prediction import (
    Expectation, hold_files, hold_levels, hold_report, hold_results, predicted_levels, rendered_files)
from secure_shell import SecureShell
from trees import HERE, Tree, make_trees, wait_until

FLEET = pathlib.Path("/tmp/fleet")
OVER_SSH = 3  # so many are reached over ssh
WEB, C_SERVICE = 8443, 8444
UNREACHABLE = 4  # ansible-playbook's exit status
VERSIONS = ("tls1_2", "tls1_3")
LEVELS = {"intermediate": (True, True), "modern": (False, True)}
PROJECT = pathlib.Path(HERE).parents[1]

RELOADER = """#!/bin/sh
set -eu
pid_file=/usr/kelo/run/tls_service.pid
if [ -s "$pid_file" ] && kill -0 "$(cat "$pid_file")" 2>/dev/null; then
  kill -HUP "$(cat "$pid_file")"
fi
"""
# The power goes while the service reloads, once.
DYING_RELOADER = """#!/bin/sh
mv /usr/kelo/share/tls_service/reloader.good /usr/kelo/share/tls_service/reloader
kill -TERM 1
sleep 600
"""
TLS_SERVICE = {"service": "tls_service", "display-name": "TLS service",
               "reloader-path": "/usr/kelo/share/tls_service/reloader",
               "probe": {"address": f"127.0.0.1:{C_SERVICE}"}}


class Fleet:
    """The appliances, and the controller that manages them."""

    def __init__(self, arguments: argparse.Namespace) -> None:
        shutil.rmtree(FLEET, ignore_errors=True)
        image = FLEET / "image"
        subprocess.run([os.path.join(HERE, "make_image"), image, os.path.abspath(arguments.build),
                        os.path.abspath(arguments.services)], check=True)
        self.trees = make_trees(image, FLEET / "trees", arguments.count)
        self.secure_shell = SecureShell(FLEET / "ssh")
        self.registrations = [json.loads(
            (pathlib.Path(arguments.services) / "nginx/registration.json").read_text()),
            {"services": [TLS_SERVICE]}]
        self.wish = {"kelotls_default_level": "intermediate", "kelotls_levels": {},
                     "kelotls_registrations": self.registrations,
                     "kelotls_start_command": "start_servers"}
        controller = FLEET / "controller"
        controller.mkdir()
        self.controller = Controller(pathlib.Path(os.path.abspath(arguments.collections)), controller,
                                     controller / "inventory.json")

    def start(self) -> None:
        certificate = FLEET / "certificate.pem"
        subprocess.run(
            ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=appliance",
             "-keyout", certificate, "-out", FLEET / "public.pem"], check=True, capture_output=True)
        certificate.write_text(certificate.read_text() + (FLEET / "public.pem").read_text())
        for tree in self.trees:
            furnish(tree, certificate)
            tree.start()
        for tree in self.trees:
            tree.wait()
            tree.must("kelotlsctl init")
        self.secure_shell.start([tree.directory for tree in self.trees[:OVER_SSH]])
        self.write_inventory()

    def write_inventory(self) -> None:
        hosts = {}
        for index, tree in enumerate(self.trees):
            hosts[tree.name] = self.secure_shell.variables(index) if index < OVER_SSH else {
                "ansible_connection": "appliance_tree", "tree_directory": str(tree.directory)}
        self.controller.inventory.write_text(json.dumps(
            {"all": {"hosts": hosts, "vars": self.wish}}))

    def set_wish(self, **levels: str) -> None:
        self.wish["kelotls_levels"] = levels
        self.write_inventory()


def furnish(tree: Tree, certificate: pathlib.Path) -> None:
    """What the maker delivers."""
    data = pathlib.Path(HERE).parent / "bed/data"
    for name in ("dh1024.pem", "dh2048.pem"):
        shutil.copy(data / name, tree.kelo / "etc/ssl")
    shutil.copy(certificate, tree.kelo / "etc/ssl/nginx.pem")
    (tree.kelo / "etc/nginx").mkdir()
    shutil.copy(PROJECT / "services/nginx/nginx.conf", tree.kelo / "etc/nginx")
    write_program(tree.kelo / "share/tls_service/reloader", RELOADER)


def write_program(path: pathlib.Path, text: str) -> None:
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text)
    path.chmod(0o755)


# What is seen of the appliances themselves


def assert_served(trees: list[Tree], web: str, c_service: str) -> None:
    """Levels by the handshakes that the running servers take."""
    for tree in trees:
        for port, level in ((WEB, web), (C_SERVICE, c_service)):
            got = tuple(tree.accepts(port, version) for version in VERSIONS)
            assert got == LEVELS[level], f"{tree.name}, port {port}: {level} wanted, TLS 1.2, 1.3: {got}"


def stored(tree: Tree) -> dict[str, int]:
    document = json.loads((tree.profile / "datastore.json").read_text())
    return {"default": document["default-level"],
            **{name: entry["current-level"] for name, entry in document["services"].items()}}


def assert_stored(trees: list[Tree], **levels: int) -> None:
    for tree in trees:
        assert stored(tree) == levels, f"{tree.name}: {stored(tree)}, not {levels}"


def history(tree: Tree) -> list[dict]:
    return [json.loads(line) for line in (tree.profile / "history.jsonl").read_text().splitlines()]


def image_of(tree: Tree) -> dict[str, str]:
    """Every file that the appliance keeps: its mode, its time and what is in it."""
    files = {}
    for path in sorted((tree.directory / "data").rglob("*")):
        status = path.lstat()
        if stat.S_ISREG(status.st_mode) and path.name != "lock":
            files[str(path)] = f"{status.st_mode:o} {status.st_mtime_ns} " \
                               f"{hashlib.sha256(path.read_bytes()).hexdigest()}"
        elif path.is_symlink():
            files[str(path)] = os.readlink(path)
    return files


def images_of(trees: list[Tree]) -> list[dict[str, str]]:
    return [image_of(tree) for tree in trees]


def assert_untouched(trees: list[Tree], before: list[dict[str, str]]) -> None:
    for tree, then, now in zip(trees, before, images_of(trees)):
        touched = sorted(path for path in {*then, *now} if then.get(path) != now.get(path))
        assert not touched, f"{tree.name}: touched {touched}"


def assert_no_python(trees: list[Tree]) -> None:
    for tree in trees:
        said = tree.must("for name in python python3 python2; do command -v $name; done; "
                         "ls -d /usr/bin/python* /usr/lib/python* /usr/local/bin/python* 2> /dev/null; true")
        assert said == "", f"{tree.name} has Python: {said}"
        result = tree.run("exec python3 -c 0")
        assert result.returncode == 127, f"{tree.name} runs Python: {result}"


# What is predicted, and done


def predict_and_play(fleet: Fleet, playbook: str, *options: str,
                     expected: Expectation = Expectation(), **variables) -> Run:
    """In check mode first, which touches nothing. What it says has to be what comes of the real run,
    in what the tasks return and on the appliances, host by host."""
    predicted = predict(fleet, playbook, *options, **variables)
    before = {tree.name: rendered_files(tree) for tree in fleet.trees}
    run = fleet.controller.play(playbook, *options, **variables)
    hold(fleet, predicted, run, before, expected)
    return run


def predict(fleet: Fleet, playbook: str, *options: str, **variables) -> Run:
    before = images_of(fleet.trees)
    predicted = fleet.controller.play(playbook, "--check", *options, **variables)
    assert_untouched(fleet.trees, before)
    return predicted


def hold(fleet: Fleet, predicted: Run, run: Run, before: dict[str, dict[str, str]],
         expected: Expectation) -> None:
    hold_results(predicted, run, expected)
    failed = run.hosts("failed")
    for tree in fleet.trees:
        if expected.is_whole(tree.name) and tree.name not in failed:
            hold_levels(tree, predicted_levels(predicted, tree.name), stored(tree))
            hold_files(tree, predicted, before[tree.name])


# The steps


def install(fleet: Fleet) -> None:
    """The levels of the inventory get to appliances that have nothing yet."""
    assert_no_python(fleet.trees)
    play = functools.partial(predict_and_play, fleet)
    join = play("cookbook/install.yml", "--tags", "join").must_pass()
    assert join.changed() == {tree.name for tree in fleet.trees}
    play("cookbook/install.yml", "--tags", "render").must_pass()
    start = "cookbook/install.yml", "--tags", "start"
    # A command of the maker's: of it, check mode says nothing.
    assert predict(fleet, *start).must_pass().hosts("skipped") == {tree.name for tree in fleet.trees}
    fleet.controller.play(*start).must_pass()
    fleet.set_wish(nginx="intermediate", tls_service="default")
    # One after the other: what a task finds is predicted, not what the one before it would leave.
    for tag in ("levels", "default", "apply"):
        play("cookbook/install.yml", "--tags", tag).must_pass()
    assert_stored(fleet.trees, default=2, nginx=2, tls_service=0)
    assert_served(fleet.trees, "intermediate", "intermediate")


def run_again(fleet: Fleet) -> None:
    """Where all is there, nothing is touched: no file, no history, no reloader."""
    before = images_of(fleet.trees)
    run = predict_and_play(fleet, "cookbook/install.yml").must_pass()
    assert run.changed() == set(), f"changed again: {sorted(run.changed())}"
    assert_untouched(fleet.trees, before)


def look_without_touching(fleet: Fleet) -> None:
    """Check mode of a change that is due leaves everything as it is."""
    before = images_of(fleet.trees)
    fleet.set_wish(nginx="modern", tls_service="modern")
    run = fleet.controller.play("cookbook/install.yml", "--check", "--tags", "levels").must_pass()
    assert run.changed() == {tree.name for tree in fleet.trees}
    assert_untouched(fleet.trees, before)
    assert_served(fleet.trees[:2], "intermediate", "intermediate")


@contextlib.contextmanager
def own_versions(tree: Tree):
    """Meanwhile the web server's main configuration names protocol versions of its own."""
    path = tree.kelo / "etc/nginx/nginx.conf"
    text = path.read_text()
    path.write_text(text.replace("    listen ", "    ssl_protocols TLSv1.2 TLSv1.3;\n    listen "))
    tree.must("nginx -e /tmp/nginx.log -c /usr/kelo/etc/nginx/nginx.conf -s reload")
    yield
    path.write_text(text)


def roll_out_to_a_server_that_cannot_follow(fleet: Fleet) -> None:
    """The canary's web server has protocol versions of its own, which TLS 1.2 is among."""
    canary, *others = fleet.trees
    # In this order, the C service has taken up modern when the web server fails.
    fleet.set_wish(tls_service="modern", nginx="modern")
    before = images_of(others)
    with own_versions(canary):
        report, run = roll_out(fleet, Expectation(
            not_begun=frozenset(tree.name for tree in others)))
    assert run.status != 0, "the rollout passed over a server that cannot follow"
    assert run.hosts("failed") == {canary.name}
    assert_untouched(others, before)
    assert_stored([canary], default=2, nginx=2, tls_service=0)
    assert_served([canary], "intermediate", "intermediate")
    assert any(change.get("to") == "modern" and change["service"] == "tls_service"
               for record in history(canary) for change in record.get("changes", [])), \
        "the C service was never modern: nothing had to be taken back"
    assert report[canary.name]["outcome"] == "rolled back", report[canary.name]
    assert "TLS 1.2" in report[canary.name]["failure"], report[canary.name]["failure"]
    assert report[canary.name]["services"]["tls_service"]["level"] == "default"
    assert report[canary.name]["services"]["nginx"]["state"] == "in-force"
    assert all(report[tree.name] == {"outcome": "not reached"} for tree in others)
    assert f"{canary.name}: rolled back" in run.output
    assert f"{others[0].name}: not reached" in run.output


def roll_out_past_a_canary_that_is_off(fleet: Fleet) -> None:
    """Alone in its wave, and among others of it."""
    canary, *others = fleet.trees
    canary.stop()
    before = images_of(fleet.trees)
    # Check mode comes to the same.
    report, run = roll_out(fleet)
    assert run.status != 0
    assert report.pop(canary.name) == {"outcome": "begun"}, report
    assert all(entry == {"outcome": "not reached"} for entry in report.values()), report

    wish = fleet.wish["kelotls_levels"]
    fleet.set_wish(tls_service="default", nginx="intermediate")
    report, run = roll_out(fleet, kelotls_rollout_waves=["100%"])
    assert run.status != 0
    assert report.pop(canary.name) == {"outcome": "lost"}, report
    assert {entry["outcome"] for entry in report.values()} == {"unchanged"}, report
    assert_untouched(fleet.trees, before)
    fleet.set_wish(**wish)
    canary.start()
    canary.wait()


def roll_out(fleet: Fleet, expected: Expectation = Expectation(), **variables) -> tuple[dict, Run]:
    """Predicts it, and does it. The report's prediction stands for the tasks that find what those
    before them have left, and for the survey, which check mode leaves out."""
    expected = dataclasses.replace(
        expected, taken_back=frozenset({"Restore the former levels"}), unsaid=frozenset({
            "Set the default level", "Survey the running servers", "See what the appliance has now"}))
    path = fleet.controller.directory / "report.json"
    play = functools.partial(reported, path, "kelotls.appliance.rollout", kelotls_rollout_report=str(path),
                             **variables)
    before = {tree.name: rendered_files(tree) for tree in fleet.trees}
    foreseen, predicted = play(functools.partial(predict, fleet))
    report, run = play(fleet.controller.play)
    hold(fleet, predicted, run, before, expected)
    hold_report(foreseen, report)
    for tree in fleet.trees:
        if report[tree.name]["outcome"] == "changed":
            levels = {name: service["level"] for name, service in foreseen[tree.name]["services"].items()}
            hold_levels(tree, {"default": foreseen[tree.name]["default_level"], **levels}, stored(tree))
            assert sorted(foreseen[tree.name]["rendered"]) == sorted(
                name.rpartition("/")[2].removesuffix(".conf") for name, text in rendered_files(tree).items()
                if before[tree.name].get(name) != text), foreseen[tree.name]
    return report, run


def reported(path: pathlib.Path, playbook: str, play, *options: str, **variables) -> tuple[dict, Run]:
    path.unlink(missing_ok=True)
    run = play(playbook, *options, **variables)
    assert path.exists(), f"there is no report:\n{run.output[-6000:]}"
    return json.loads(path.read_text()), run


def roll_out_to_all(fleet: Fleet) -> None:
    fleet.set_wish(tls_service="modern", nginx="modern")
    report, run = roll_out(fleet)
    run.must_pass()
    assert_stored(fleet.trees, default=2, nginx=1, tls_service=1)
    assert_served(fleet.trees, "modern", "modern")
    assert {entry["outcome"] for entry in report.values()} == {"changed"}, report
    assert len(report) == len(fleet.trees)
    waves = [line for line in run.output.splitlines() if line.startswith("PLAY [")]
    assert len(waves) == 3, waves


def find_drift(fleet: Fleet, status: int = 0) -> dict:
    path = fleet.controller.directory / "drift.json"
    before = images_of(fleet.trees)
    found, run = reported(path, "kelotls.appliance.drift", fleet.controller.play,
                          kelotls_drift_report=str(path))
    assert run.status == status, run.output[-6000:]
    assert run.changed() == set(), sorted(run.changed())
    assert_untouched(fleet.trees, before)
    return found


def find_what_was_changed_by_hand(fleet: Fleet) -> None:
    """Somebody edits a data store here, a rendered file there, and has changed a server elsewhere."""
    found = find_drift(fleet)
    assert found == {}, found
    in_store, in_file, in_server = fleet.trees[1], fleet.trees[len(fleet.trees) // 2], fleet.trees[-1]
    path = in_store.profile / "datastore.json"
    document = json.loads(path.read_text())
    document["services"]["nginx"]["current-level"] = 2
    path.write_text(json.dumps(document))
    with open(in_file.profile / "config/nginx.conf", "a", encoding="utf-8") as rendered:
        rendered.write("# temporarily\n")
    # It runs with settings that its file no longer has.
    with own_versions(in_server):
        wait_until(lambda: in_server.accepts(WEB, "tls1_2"), "the web server has been changed by hand")
    found = find_drift(fleet)
    assert found == {in_store.name: {"store": ["nginx"]}, in_file.name: {"rendered": ["nginx"]},
                     in_server.name: {"server": ["nginx"]}}, found


def heal_what_was_changed_by_hand(fleet: Fleet) -> None:
    in_server = fleet.trees[-1]
    run = predict_and_play(fleet, "cookbook/install.yml", "--tags", "levels").must_pass()
    assert run.changed() == {tree.name for tree in (
        fleet.trees[1], fleet.trees[len(fleet.trees) // 2], in_server)}, sorted(run.changed())
    assert_stored(fleet.trees, default=2, nginx=1, tls_service=1)
    assert_served(fleet.trees, "modern", "modern")
    assert find_drift(fleet) == {}


def die_in_the_middle(fleet: Fleet) -> None:
    """The power goes on one appliance while its service reloads."""
    dying = fleet.trees[-2]
    directory = dying.kelo / "share/tls_service"
    (directory / "reloader").rename(directory / "reloader.good")
    write_program(directory / "reloader", DYING_RELOADER)
    fleet.set_wish(nginx="intermediate", tls_service="intermediate")
    levels = "cookbook/install.yml", "--tags", "levels"
    run = predict_and_play(fleet, *levels, expected=Expectation(dying=frozenset({dying.name})))
    assert run.hosts("unreachable") == {dying.name}, run.output[-3000:]
    wait_until(lambda: not dying.is_running(), f"{dying.name} is off")
    others = [tree for tree in fleet.trees if tree is not dying]
    assert_served(others, "intermediate", "intermediate")
    dying.stop()

    found = find_drift(fleet, UNREACHABLE)
    assert set(found) == {dying.name} and "unknown" in found[dying.name], found

    dying.start()
    dying.wait()
    interrupted = {record["id"] for record in history(dying)} - {
        record["id"] for record in history(dying) if "ended" in record}
    assert len(interrupted) == 1, "it did not die in the middle of a change"
    before = images_of(others)
    run = predict_and_play(fleet, "cookbook/install.yml", "--tags", "levels").must_pass()
    assert run.changed() == {dying.name}, sorted(run.changed())
    assert_untouched(others, before)
    assert_served(fleet.trees, "intermediate", "intermediate")
    assert find_drift(fleet) == {}


def cook(fleet: Fleet) -> None:
    """The other playbooks of the cookbook."""
    kept = fleet.controller.directory / "kept"
    kept.mkdir()
    play = functools.partial(predict_and_play, fleet)
    play("cookbook/survey.yml").must_pass()
    play("cookbook/keep_levels.yml", kelotls_kept_levels=str(kept)).must_pass()
    fleet.set_wish(nginx="modern", tls_service="default")
    predict_and_play(fleet, "cookbook/install.yml", "--tags", "levels").must_pass()
    assert_served(fleet.trees, "modern", "intermediate")
    back = predict_and_play(fleet, "cookbook/bring_back.yml", kelotls_kept_levels=str(kept))
    assert back.must_pass().changed() == {tree.name for tree in fleet.trees}
    assert_stored(fleet.trees, default=2, nginx=2, tls_service=2)
    assert_served(fleet.trees, "intermediate", "intermediate")
    again = play("cookbook/bring_back.yml", kelotls_kept_levels=str(kept)).must_pass()
    assert again.changed() == set()

    retired = predict_and_play(fleet, "cookbook/retire_service.yml",
                               kelotls_retired_service="tls_service").must_pass()
    assert retired.changed() == {tree.name for tree in fleet.trees}
    assert_stored(fleet.trees, default=2, nginx=2)
    again = play("cookbook/retire_service.yml", kelotls_retired_service="tls_service").must_pass()
    assert again.changed() == set()
    down = fleet.trees[-1]
    down.must("kill $(cat /usr/kelo/run/nginx.pid)")
    # It removes its file once its workers have ended, which is not when it is told to.
    wait_until(lambda: not (down.kelo / "run/nginx.pid").exists(), f"the web server of {down.name} has ended")
    survey = play("cookbook/survey.yml")
    assert survey.hosts("failed") == {down.name}, "a server that is down was not noticed"


def become_another_user(fleet: Fleet) -> None:
    """Over ssh, sudo asks for a password before the script can follow on the same input. An ordinary
    user is told what the command tells."""
    host = fleet.trees[0]
    level = "old" if stored(host)["nginx"] == 1 else "modern"
    playbook = fleet.controller.directory / "become.json"
    playbook.write_text(json.dumps([{
        "name": "Become", "hosts": [host.name], "gather_facts": False, "become": True, "tasks": [
            {"name": "Set", "kelotls.appliance.kelotls_level": {
                "services": ["nginx"], "level": level, "apply": True}}]}]))
    with_sudo = {"ansible_become_method": "ansible.builtin.sudo"}

    wrong = fleet.controller.play(str(playbook), **with_sudo, ansible_become_password="another")
    assert wrong.hosts("failed") == {host.name} and "Incorrect sudo password" in wrong.output, wrong.output
    run = predict_and_play(fleet, str(playbook), **with_sudo, ansible_become_password="a password")
    assert run.must_pass().changed() == {host.name}
    assert stored(host)["nginx"] == {"old": 3, "modern": 1}[level]

    ordinary = fleet.controller.play(str(playbook), ansible_become_method="ansible.builtin.su",
                                     ansible_become_user="operator")
    assert ordinary.hosts("failed") == {host.name}, ordinary.output
    result = ordinary.of(host.name)[-1]["result"]
    assert "needs root" in result["kelotlsctl_message"], result
    assert stored(host)["nginx"] == {"old": 3, "modern": 1}[level]


def try_each_module(fleet: Fleet) -> None:
    """The collection's own targets, on one appliance over ssh and on one without."""
    targets = sorted(path.name for path in
                     (fleet.controller.collection / "tests/integration/targets").iterdir())
    playbook = fleet.controller.directory / "targets.json"
    playbook.write_text(json.dumps([{
        "name": "Targets", "hosts": [fleet.trees[0].name, fleet.trees[OVER_SSH].name],
        "gather_facts": False, "roles": targets}]))
    fleet.controller.play(str(playbook)).must_pass()


STEPS = (install, run_again, look_without_touching, roll_out_to_a_server_that_cannot_follow,
         roll_out_past_a_canary_that_is_off, roll_out_to_all, find_what_was_changed_by_hand,
         heal_what_was_changed_by_hand,
         die_in_the_middle, cook, become_another_user, try_each_module)
STEPS_BY_NAME = {step.__name__: step for step in STEPS}


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--count", type=int, default=30)
    parser.add_argument("--step", action="append", dest="steps", type=lambda name: STEPS_BY_NAME[name],
                        help="only this one, which takes what comes before it as done")
    parser.add_argument("collections")
    parser.add_argument("build")
    parser.add_argument("services")
    arguments = parser.parse_args()
    fleet = Fleet(arguments)
    fleet.start()
    print(f"{len(fleet.trees)} appliances, {OVER_SSH} of them over ssh, none with Python")
    for step in arguments.steps or STEPS:
        begun = time.monotonic()
        name = step.__name__.replace("_", " ")
        try:
            step(fleet)
        except AssertionError as error:
            print(f"{name}: FAILED\n{error}")
            return 1
        print(f"{name}: {time.monotonic() - begun:.1f} s", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
