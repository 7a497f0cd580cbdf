#!/usr/bin/python3
"""Sets a service's level and renders all templates, as a plain Python program would, in the library's files.

  set_and_render.py pystache|regex SERVICE LEVEL    once
  set_and_render.py pystache|regex                  for each "SERVICE LEVEL" of the standard input; answers with the
                                                    nanoseconds that it took

Reads the data store once where the library reads it twice, and checks nothing. Writes as safely as the library.
"""

import json
import os
import re
import sys
import tempfile
import time

FRAMEWORK = "/usr/kelo/etc/security-profile/tls-profile"
DATA_STORE = f"{FRAMEWORK}/datastore.json"
TIERS = {1: "mozilla_modern", 2: "mozilla_intermediate", 3: "mozilla_old"}


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def data_store_text(store):
    """In the library's layout: blanks around colons, an object on a line of its own."""
    text = json.dumps(store, indent=2, separators=(",", " : "), sort_keys=True, ensure_ascii=False)
    return re.sub(r"^( *)(\".*\" : )\{$", r"\1\2\n\1{", text, flags=re.MULTILINE) + "\n"


def write_data_store(store):
    """After a power cut the file holds the old text or the new one."""
    number, temporary = tempfile.mkstemp(dir=FRAMEWORK)
    with open(number, "w", encoding="utf-8") as file:
        file.write(data_store_text(store))
        file.flush()
        os.fchmod(number, os.stat(DATA_STORE).st_mode & 0o7777)
        os.fsync(number)
    os.rename(temporary, DATA_STORE)
    directory = os.open(FRAMEWORK, os.O_RDONLY | os.O_DIRECTORY)
    os.fsync(directory)
    os.close(directory)


def replace_rendered_file(path, text):
    number, temporary = tempfile.mkstemp(prefix=os.path.basename(path) + ".", dir=os.path.dirname(path))
    with open(number, "w", encoding="utf-8") as file:
        file.write(text)
        file.flush()
        os.fsync(number)
    os.rename(temporary, path)


def pystache_renderer():
    import pystache  # not at the top: the other way of rendering should not have to wait for it

    renderer = pystache.Renderer()
    return lambda template, tier: renderer.render(template, {tier: True})


def regex_renderer():
    """Knows sections and comments on lines of their own, which is all that these templates have."""
    section = re.compile(r"^\{\{#(\w+)\}\}\n(.*?)^\{\{/\1\}\}\n", re.MULTILINE | re.DOTALL)
    comment = re.compile(r"^\{\{!.*?\}\}\n", re.MULTILINE | re.DOTALL)

    def render(template, tier):
        text = section.sub(lambda found: found[2] if found[1] == tier else "", template)
        return comment.sub("", text)

    return render


def set_and_render(render, service, level):
    store = json.loads(read(DATA_STORE))
    store["services"][service]["current-level"] = level
    write_data_store(store)
    for name, entry in sorted(store["services"].items()):
        descriptor = json.loads(read(f"{FRAMEWORK}/services/{name}.conf"))
        tier = TIERS[entry["current-level"] or store["default-level"]]
        replace_rendered_file(f"{FRAMEWORK}/config/{name}.conf", render(read(descriptor["mustache-path"]), tier))


def main():
    render = {"pystache": pystache_renderer, "regex": regex_renderer}[sys.argv[1]]()
    if len(sys.argv) == 4:
        set_and_render(render, sys.argv[2], int(sys.argv[3]))
        return
    for line in sys.stdin:
        service, level = line.split()
        start = time.perf_counter_ns()
        set_and_render(render, service, int(level))
        print(time.perf_counter_ns() - start, flush=True)


if __name__ == "__main__":
    main()
