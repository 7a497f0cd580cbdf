"""Holds what check mode has predicted to what came of the real run: to what the tasks returned, and to
the files of the appliances.

A prediction says itself what it does not know, as "not_known". All else is held. Where a server could
not follow, that shows among what is not known; then what was tried is held, and what was taken back has
to be as it was.
"""

import dataclasses
import re

from controller import Run
from trees import Tree

OURS = "kelotls.appliance."
VALUES = {"default": 0, "modern": 1, "intermediate": 2, "old": 3}


class Wrong(AssertionError):
    """A prediction that did not come true."""


def our_rows(run: Run, host: str) -> dict[str, dict]:
    """By task, without the name of its role; without what a condition has left out, of which nothing is
    said."""
    return {row["task"].rpartition(" : ")[2]: row for row in run.of(host)
            if row["action"].startswith(OURS) and row["kind"] != "skipped"}


@dataclasses.dataclass(frozen=True)
class Expectation:
    """What comes in between, which no prediction can know."""

    not_begun: frozenset[str] = frozenset()  # hosts that are not reached, because one before them failed
    dying: frozenset[str] = frozenset()  # hosts that go away in the middle
    unsaid: frozenset[str] = frozenset()  # tasks for which the prediction of the whole play stands
    taken_back: frozenset[str] = frozenset()  # tasks that only follow upon a failure

    def is_whole(self, host: str) -> bool:
        return host not in self.not_begun | self.dying


def hold_results(predicted: Run, run: Run, expected: Expectation) -> None:
    """Task by task and host by host."""
    hosts = {row["host"] for row in [*predicted.rows, *run.rows]}
    assert any(our_rows(predicted, host) for host in hosts), f"nothing predicted:\n{predicted.output}"
    for host in sorted(hosts):
        foreseen, came = our_rows(predicted, host), our_rows(run, host)
        if host in expected.not_begun and (came or not foreseen):
            raise Wrong(f"{host}: has begun, or nothing was predicted of it")
        if host in expected.dying:
            foreseen, came = before_death(host, foreseen, came)
        if host in expected.not_begun:
            continue
        failed = any(row["kind"] == "failed" for row in came.values())
        allowed = expected.unsaid | (expected.taken_back if failed else frozenset())
        for task in sorted({*foreseen, *came} - allowed):
            if task not in foreseen or task not in came:
                raise Wrong(f"{task} on {host}: "
                            f"{'was not predicted' if task in came else 'did not come'}")
            hold_row(f"{task} on {host}", foreseen[task], came[task])


def before_death(host: str, foreseen: dict, came: dict) -> tuple[dict, dict]:
    """What was predicted and came until the host went away."""
    gone = [task for task, row in came.items() if row["kind"] == "unreachable"]
    if len(gone) != 1 or list(came)[-1] != gone[0]:
        raise Wrong(f"{host}: did not go away, or something came of it afterwards: {list(came)}")
    tasks = list(came)[:-1]
    return ({task: row for task, row in foreseen.items() if task in tasks},
            {task: row for task, row in came.items() if task in tasks})


def hold_row(where: str, foreseen: dict, came: dict) -> None:
    items = foreseen["result"].get("results"), came["result"].get("results")
    if items[0] is None or items[1] is None:
        hold_result(where, foreseen["result"], came["result"])
        is_alike = foreseen["kind"] == came["kind"]
    else:
        if len(items[0]) != len(items[1]):
            raise Wrong(f"{where}: {len(items[0])} items predicted, {len(items[1])} came")
        for one, other in zip(*items):
            hold_result(f"{where}, {one.get('item')}", one, other)
        # What a loop says of all its items follows from them.
        is_alike = foreseen["result"].get("changed") == came["result"].get("changed") \
            and foreseen["kind"] == came["kind"]
        items = items[1]
    if not is_alike and not any(map(could_not_follow, items if isinstance(items, list)
                                    else [came["result"]])):
        raise Wrong(f"{where}: {foreseen['kind']} predicted, {came['kind']} came")


def hold_result(where: str, foreseen: dict, came: dict) -> None:
    not_known = foreseen.get("not_known", [])
    if not_known and could_not_follow(came):
        foreseen, came = what_was_tried(where, foreseen, came), what_was_tried(where, came, came)
    wrong = [key for key in sorted({*foreseen, *came} - {*not_known, "not_known"})
             if not key.startswith("_ansible") and foreseen.get(key) != came.get(key)]
    if wrong:
        raise Wrong(f"{where}: the prediction of {', '.join(wrong)} was wrong\n"
                    f"  predicted {[foreseen.get(key) for key in wrong]}\n"
                    f"  came      {[came.get(key) for key in wrong]}")


def could_not_follow(result: dict) -> bool:
    """Whether a server was seen to do something else than its level asks for."""
    return result.get("failed", False) and any(
        row["asked"] == "server" and row["result"] == "failed" for row in result.get("surveyed", []))


def what_was_tried(where: str, result: dict, came: dict) -> dict:
    """What of a change is so, whether the servers follow or not. came: what the real run returned,
    which has taken back what failed, and nothing else."""
    failed = {row["service"] for row in came["surveyed"] if row["result"] == "failed"}
    undone = {row["service"]: row for row in came["services"] if row["undone"]}
    if failed != set(undone) or any(row["after"] != row["before"] for row in undone.values()):
        raise Wrong(f"{where}: {sorted(failed)} failed, {sorted(undone)} is back")
    return {
        "services": [{"service": row["service"], "before": row["before"]}
                     if row["service"] in undone else row for row in result["services"]],
        "applied": result["applied"],
    }


# Files


def predicted_changes(result: dict) -> dict[str, str]:
    """What becomes of each rendered file, by its path: none, new or changed."""
    rows = result.get("results", [result])
    return {rendered["path"]: rendered["change"] for row in rows
            for rendered in (row.get("applied") or {}).get("rendered", [])}


def predicted_differences(result: dict) -> list[str]:
    rows = result.get("results", [result])
    return [diff["prepared"] for row in rows for diff in row.get("diff") or [] if "prepared" in diff]


def rendered_files(tree: Tree) -> dict[str, str]:
    """By their paths on the appliance."""
    return {"/usr/kelo/" + str(path.relative_to(tree.kelo)): path.read_text()
            for path in (tree.profile / "config").glob("*") if path.is_file()}


def predicted_levels(predicted: Run, host: str) -> dict[str, str]:
    """By service, and "default"."""
    levels = {}
    for row in our_rows(predicted, host).values():
        kind = row["action"][len(OURS):]
        for result in row["result"].get("results", [row["result"]]):
            if kind in ("kelotls_level", "kelotls_restore"):
                levels.update({service["service"]: service["after"]
                               for service in result.get("services", [])})
            if kind == "kelotls_default":
                levels["default"] = result["after"]
            if kind == "kelotls_restore":
                levels["default"] = result["default_level"]["after"]
    return levels


def hold_levels(tree: Tree, levels: dict[str, str], stored: dict[str, int]) -> None:
    for name, level in levels.items():
        if stored.get(name) != VALUES[level]:
            raise Wrong(f"{tree.name}: {name} {level} was predicted, {stored.get(name)} is stored")


def hold_files(tree: Tree, predicted: Run, before: dict[str, str]) -> None:
    """Each rendered file that the prediction names has to be what the predicted difference makes of
    what was there."""
    expected, changes = dict(before), {}
    for row in our_rows(predicted, tree.name).values():
        changes.update(predicted_changes(row["result"]))
        for text in predicted_differences(row["result"]):
            path = re.search(r"^\+\+\+ (\S+)", text, re.MULTILINE).group(1)
            expected[path] = patched(before.get(path, ""), text)
    after = rendered_files(tree)
    for path, change in changes.items():
        if after.get(path) != expected.get(path):
            raise Wrong(f"{tree.name}: {path} is not as the predicted difference makes it")
        if (after.get(path) != before.get(path)) != (change != "none"):
            raise Wrong(f"{tree.name}: {path}: \"{change}\" was predicted")


def patched(text: str, difference: str) -> str:
    """The text with a unified difference in it."""
    lines, result, at = text.splitlines(), [], 0
    for line in difference[difference.index("@@"):].splitlines():
        if line.startswith("@@"):
            first, _comma, count = line.split()[1][1:].partition(",")
            begin = int(first) - (0 if count == "0" else 1)
            result += lines[at:begin]
            at = begin
        elif line.startswith("+"):
            result.append(line[1:])
        else:
            if lines[at] != line[1:]:
                raise Wrong(f"the difference takes {line[1:]!r} for {lines[at]!r}")
            result += [] if line.startswith("-") else [line[1:]]
            at += 1
    return "\n".join(result + lines[at:]) + "\n"


# The report of a rollout


def hold_report(predicted: dict, came: dict) -> None:
    """Host by host. A rollout that was taken back, or did not come so far, is nothing that the
    prediction has spoken of: the levels of these hosts are looked at elsewhere."""
    if list(predicted) != list(came):
        raise Wrong(f"reports of {list(predicted)} and {list(came)}")
    for host, state in came.items():
        foreseen = predicted[host]
        if state["outcome"] in ("rolled back", "not reached") and "not_known" in foreseen:
            if "servers" not in foreseen["not_known"]:
                raise Wrong(f"{host}: the prediction does not say that it cannot know this")
        elif state["outcome"] in ("changed", "unchanged"):
            hold_state(host, foreseen, state)
        elif foreseen != state:
            raise Wrong(f"{host}: {foreseen} predicted, {state} came")


def hold_state(host: str, foreseen: dict, state: dict) -> None:
    outcome = {"changed": "would change"}.get(state["outcome"], state["outcome"])
    not_known = foreseen.get("not_known", {}).get("rendered", [])
    told = {
        "outcome": outcome, "default_level": state["default_level"], "version": state["version"],
        "services": {name: {"level": service["level"], "effective": service["effective"]}
                     for name, service in state["services"].items()},
        "rendered": [name for name in state["rendered"] if name not in not_known]}
    if {key: value for key, value in foreseen.items() if key != "not_known"} != told:
        raise Wrong(f"{host}: the report was predicted to be\n  {foreseen}\nand tells\n  {told}")
