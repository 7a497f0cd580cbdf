"""Holds the documentation of each module, in the current directory's collection, to what its action
plugin takes. Exit status 1 where they differ."""

import importlib
import pathlib
import sys

import yaml
import ansible.plugins.loader  # noqa: F401  makes the collection importable


def plain(specification: dict, nested: str) -> dict:
    """The options without their descriptions."""
    return {name: {
        "type": option.get("type", "str"), "elements": option.get("elements"),
        "required": option.get("required", False), "default": option.get("default"),
        "choices": list(option.get("choices") or []),
        "nested": plain(option.get(nested) or {}, nested),
    } for name, option in specification.items()}


def main() -> int:
    here = pathlib.Path.cwd()
    status = 0
    for path in sorted(here.glob("plugins/modules/*.py")):
        package = "ansible_collections.kelotls.appliance.plugins"
        module = importlib.import_module(f"{package}.modules.{path.stem}")
        action = importlib.import_module(f"{package}.action.{path.stem}").ActionModule
        documented = plain(yaml.safe_load(module.DOCUMENTATION).get("options", {}), "suboptions")
        taken = plain(action.ARGUMENTS, "options")
        for name in sorted({*documented, *taken}):
            if documented.get(name) != taken.get(name):
                print(f"{path.stem}: {name}: documented {documented.get(name)}, taken {taken.get(name)}")
                status = 1
    return status


if __name__ == "__main__":
    sys.exit(main())
