"""Plants a fault at a time in a copy of the page, and sees the test find it that should. Exit status 1 where one
goes unnoticed.

    selftest.py BUILD PAGE SERVICES [WORD]...

With words, those in whose description one is.
"""

import concurrent.futures
import os
import pathlib
import re
import shutil
import subprocess
import sys

from drive import AT_A_TIME, PROJECT, run

COCKPIT = PROJECT / "cockpit"
FAULTS = (
    # what it is; the file; the text; what takes its place; the test that has to fail
    ("a text of others that is taken for HTML", "ui/Plain.tsx", "<Fragment key={at}>{shown}</Fragment>",
     "<span key={at} dangerouslySetInnerHTML={{ __html: shown }} />",
     "test_texts.TextsOfOthers.test_names_of_services"),
    ("a name that can turn what is around it", "ui/Plain.tsx", "  return text.replace(kUnseen, escaped);", "  return text;",
     "test_texts.TextsOfOthers.test_names_of_services"),
    ("changes made elsewhere that go unseen", "store.ts", "  kDirectories.forEach(watch);", "  void watch;",
     "test_overview.Overview.test_a_change_made_elsewhere_appears"),
    ("a preview that is the change itself", "dialogs/confirmation.tsx", 'return ["--dry-run", ...', "return [...",
     "test_change.LevelOfOneService.test_the_preview_tells_what_would_change_and_writes_nothing"),
    ("a change that waits for nobody", "dialogs/LevelDialog.tsx", '    ...confirmationArguments(confirmation, ["--apply"]),',
     '    "--apply",', "test_change.LevelOfOneService.test_a_level_is_applied_and_kept"),
    ("two ways out that are taken for each other", "Waiting.tsx",
     'isLoading={doing === "confirm"} onClick={() => void act("confirm")}>',
     'isLoading={doing === "confirm"} onClick={() => void act("revert")}>',
     "test_change.LevelOfOneService.test_a_level_is_applied_and_kept"),
    ("clients that are lost and not named", "dialogs/LevelDialog.tsx", "<ClientsPart losses={losses} judged={judged} />",
     "<ClientsPart losses={[]} judged={null} />", "test_change.ClientsThatAreLost.test_they_are_named_before_a_level_is_applied"),
    ("controls for who may change nothing", "ui/guarded.tsx", "return useLevels().writable ? null : whyReadOnly();",
     "useLevels();\n  return null as string | null;",
     "test_faults.WithoutPrivilege.test_it_can_be_read_and_says_why_it_cannot_be_changed"),
    ("a lost connection without a word", "command.ts", 'error: _("The connection to the appliance was lost"),', 'error: "",',
     "test_connection.LostConnection.test_outside_of_the_frame_the_page_says_so_itself"),
    ("a filter that takes its time", "overview/Services.tsx", "  const folded = ",
     "  for (const end = performance.now() + 150; performance.now() < end;);\n  const folded = ",
     "test_scale.ThousandServices.test_filtering_is_below_a_tenth_of_a_second"),
    ("a language that does not come", "index.html", '  <script src="po.js"></script>\n', "", "test_looks.Languages.test_german"),
    ("colours that are hard to read", "page.css", "\n.kelotls-subtle {", "\n.kelotls-subtle { color: #bbb !important;",
     "test_looks.Views.test_axe_finds_nothing"),
    ("a page wider than the screen", "page.css", "\n.kelotls-subtle {",
     "\nmain { min-width: 50rem; }\n.kelotls-subtle {",
     "test_looks.Views.test_nothing_scrolls_sideways_on_a_narrow_screen"),
    ("a page without its style", "index.html", '  <link rel="stylesheet" href="index.css">\n', "",
     "test_pictures.Pictures.test_services"),
)


def build_with(directory, name, text, replacement):
    """The page with one text replaced by another."""
    shutil.copytree(PROJECT / "schemas", directory / "schemas")
    shutil.copytree(COCKPIT, directory / "cockpit", ignore=shutil.ignore_patterns("node_modules", "dist"))
    (directory / "cockpit/node_modules").symlink_to(COCKPIT / "node_modules")
    path = directory / "cockpit/src" / name
    source = path.read_text(encoding="utf-8")
    assert source.count(text) == 1, f"{name}: not once there: {text}"
    path.write_text(source.replace(text, replacement), encoding="utf-8")
    subprocess.run(["node", "build.mjs"], cwd=directory / "cockpit", stdin=subprocess.DEVNULL,
                   stdout=subprocess.DEVNULL, check=True)
    return directory / "cockpit/dist"


def main():
    build, page, services = map(os.path.abspath, sys.argv[1:4])
    words = sys.argv[4:]
    numbers = [number for number, fault in enumerate(FAULTS) if not words or any(word in fault[0] for word in words)]
    work = pathlib.Path(page).parent / "faults"

    def is_found(number):
        what, name, text, replacement, test = FAULTS[number]
        passed, said = run(build, build_with(work / str(number), name, text, replacement), services, test)
        # The test has to have come to an end, and to have failed.
        return what, not passed and re.search(r"^FAILED \((?:failures|errors)=1\)$", said, re.M) is not None, said

    status = 0
    try:
        with concurrent.futures.ThreadPoolExecutor(AT_A_TIME) as pool:
            for what, found, said in pool.map(is_found, numbers):
                print(f"{what}: {'found' if found else 'NOT FOUND'}", flush=True)
                if not found:
                    print(said)
                    status = 1
    finally:
        shutil.rmtree(work, ignore_errors=True)
    return status


if __name__ == "__main__":
    sys.exit(main())
