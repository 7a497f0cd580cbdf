"""Prints which Debian packages each of the named services needs, all of them where none is named.

    needs.py [NAME]...

A line for each service: its name, a tabulator, the packages to install, a tabulator, and those to
unpack, because they cannot be installed beside others.
"""

import os
import sys

from recipe import HERE, PROJECT, recipe_of


def all_names() -> list[str]:
    return sorted(name for name in os.listdir(os.path.join(PROJECT, "services"))
                  if os.path.isdir(os.path.join(PROJECT, "services", name)))


def main(names: list[str]) -> None:
    for name in names:
        if not os.path.exists(f"{HERE}/recipes/{name.replace('-', '_')}.py"):
            sys.exit(f"There is no service {name}; there are: {' '.join(all_names())}")
        recipe = recipe_of(name)
        installed = [package for package in recipe.packages if package not in recipe.unpacked]
        print(name, " ".join(installed), " ".join(recipe.unpacked), sep="\t")


if __name__ == "__main__":
    main(sys.argv[1:] or all_names())
