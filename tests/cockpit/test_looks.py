"""Whoever uses a screen reader, a narrow screen, a dark one or another language gets the same."""

import contextlib
import json
import re
import unittest

import bed
from browser import Dialog
from cases import DOWNLOADS, PageCase

AXE = bed.PROJECT / "cockpit/node_modules/axe-core/axe.min.js"
RULES = ["wcag2a", "wcag2aa", "wcag21a", "wcag21aa"]
NARROWEST = 320  # CSS pixels, at which WCAG 2.1 asks for no scrolling in two directions
RUN_AXE = """
const done = arguments[arguments.length - 1];
axe.run(document, { runOnly: arguments[0], resultTypes: ["violations"] }).then(
  ({ violations }) => done(violations.map(({ id, help, nodes }) => id + ": " + help + "\\n" + nodes.slice(0, 3).map(
    node => "    " + node.html.slice(0, 200) + "\\n      " + node.any.concat(node.all, node.none).map(
      ({ message }) => message).join("; ")).join("\\n"))),
  error => done([String(error)]));
"""
# Colours that are on their way to others are not those that are read.
IS_STILL = """
return document.getAnimations().every(({ playState, effect }) =>
  playState !== "running" || effect.getTiming().iterations === Infinity);
"""
# What holds lines of files, tables of data and tabs scroll by themselves.
TOO_WIDE = """
const OWN = "figure, pre, textarea, .kelotls-matrix-place, .pf-v6-c-tabs__list";
const scrolls = each => each.tagName === "MAIN" && each.getBoundingClientRect().right > innerWidth + 1 ||
  each.scrollWidth > each.clientWidth + 1 &&
  (each === document.documentElement || ["auto", "scroll"].includes(getComputedStyle(each).overflowX));
return [...document.querySelectorAll("*")].filter(each => scrolls(each) && !each.closest(OWN)).map(
  each => each.tagName + "." + each.className + ": " + each.scrollWidth + " in " + each.clientWidth).slice(0, 8);
"""


def translations(language):
    """What the page's texts are in this language: those without forms for numbers and without places to fill."""
    text = (bed.PROJECT / f"cockpit/po/{language}.po").read_text(encoding="utf-8")
    text = re.sub(r'"\n"', "", text)
    pairs = re.findall(r'^msgid "((?:[^"\\]|\\.)+)"\nmsgstr "((?:[^"\\]|\\.)+)"$', text, re.M)
    return {json.loads(f'"{each}"'): json.loads(f'"{other}"') for each, other in pairs}


class Judged(PageCase):
    """By axe, in light and dark."""

    def judge(self, view):
        """What is wrong with the view."""
        faults = []
        for is_dark in (False, True):
            self.page.set_dark(is_dark)
            self.page.wait(lambda dark=is_dark: self.is_dark() == dark and self.page.script(IS_STILL), "its colours")
            self.page.script(AXE.read_text(encoding="utf-8"))
            faults += [f"{view}, {'dark' if is_dark else 'light'}: {violation}"
                       for violation in self.page.driver.execute_async_script(RUN_AXE, RULES)]
        self.page.set_dark(False)
        return faults

    def is_dark(self):
        colours = self.page.script("return [document.body, document.documentElement, document.querySelector("
                                   "'.pf-v6-c-page')].map(each => getComputedStyle(each).backgroundColor)")
        values = [[float(part) for part in re.findall(r"[\d.]+", each)] for each in colours]
        opaque = [each for each in values if len(each) == 3 or each[3] > 0]
        return bool(opaque) and sum(opaque[-1][:3]) < 3 * 128


class Views(Judged):
    """All of them, one after the other."""

    def make_appliance(self):
        super().make_appliance()
        self.appliance.command("set", "nginx", "modern", "--apply", "--reason", "audit")
        (bed.KELO / "etc/ssl/dh1024.pem").unlink()
        self.appliance.command("backup", str(DOWNLOADS / "levels.json"))

    def views(self):
        """Names, each once its view is there."""
        page = self.page
        page.open("/")
        page.wait_row("Web server", "modern", "In force")
        yield "services"
        page.open("/findings")
        page.wait_for("list", "Findings")
        yield "findings"
        page.open("/history")
        page.wait_row("nginx", "audit")
        yield "history"
        page.open("/service/nginx")
        page.wait_table("Cipher suites")
        yield "one service"
        yield from self.dialogs()
        yield from self.changes()
        self.appliance.command("set", "nginx", "intermediate", "--confirm", "5m")
        page.open("/")
        page.wait_for("region", "Change waiting for confirmation")
        yield "a change that waits"
        self.appliance.command("confirm")
        good = bed.STORE.read_bytes()
        bed.STORE.write_text("oops", encoding="utf-8")
        page.open("/")
        page.wait_for("heading", "The data store cannot be used")
        yield "a store that cannot be used"
        bed.STORE.write_bytes(good)

    def dialogs(self):
        page = self.page
        with self.dialog("button", "Change level of nginx") as dialog:
            yield "level"
            dialog.click("radio", "Old")
            dialog.wait_for("list", "What OpenSSL of this machine does not give")
            dialog.click("button", re.compile("Differences of"))
            yield "level with its preview"
        with self.dialog("button", "Join a service") as dialog:
            dialog.click("radio", re.compile("^apache2"))
            dialog.wait_for("region", "Preview")
            yield "join, catalogue"
            dialog.click("tab", "File")
            dialog.fill("textbox", "Registration", '{"services": [{"service": "a/b"}]}')
            dialog.wait_for("list", "Faults")
            yield "join, file"
        for action, there in (("Apply what is pending", "Reloaders that will run"), ("Back up levels", None),
                              ("Make DH parameters", None)):
            with self.dialog("menuitem", action) as dialog:
                if there:
                    dialog.wait_text(re.compile("Reloaders"))
                yield action
        with self.dialog("menuitem", "Restore levels"):
            page.script("return document.querySelector('[role=dialog] input[type=file]')").send_keys(
                str(DOWNLOADS / "levels.json"))
            page.wait_text("Default level", "dialog")
            yield "restore"
        page.open("/history")
        with self.dialog("button", "Undo last change", is_there=True) as dialog:
            dialog.wait_text("nginx")
            yield "undo"

    def changes(self):
        self.page.open("/")
        self.hold_reloader()
        dialog = self.change_level("tls_service", "Modern", is_confirmed=False)
        self.wait_held()
        dialog.wait_for("progressbar")
        yield "a change that is made"
        self.release_reloader()
        dialog.wait_gone()
        self.break_reloader()
        dialog = self.change_level("tls_service", "Intermediate", is_confirmed=False)
        dialog.wait_for("heading", "What came of it")
        yield "what came of it"
        dialog.click("button", "Close")

    @contextlib.contextmanager
    def dialog(self, role, name, is_there=False):
        if not is_there:
            self.page.open("/")
            self.page.wait_row("Web server", "In force")
        if role == "menuitem":
            self.page.click("button", "More actions")
        self.page.click(role, name)
        self.page.wait(lambda: self.page.has("dialog"), f"the dialog of {name}")
        dialog = Dialog(self.page, self.page.find_all("dialog")[0].name)
        yield dialog
        self.page.click("button", "Cancel", dialog.name)

    def test_axe_finds_nothing(self):
        faults = [fault for view in self.views() for fault in self.judge(view)]
        self.assertFalse(faults, "\n".join(faults))

    def test_nothing_scrolls_sideways_on_a_narrow_screen(self):
        faults = []
        for view in self.views():
            self.page.set_width(NARROWEST)
            wide = self.page.script(TOO_WIDE)
            if wide:
                faults.append(f"{view}: {wide}")
            self.page.set_width(1280)
        self.assertFalse(faults, "\n".join(faults))


class ReadOnly(Judged):
    user = "viewer"

    def test_axe_finds_nothing(self):
        self.page.wait_for("region", "Read-only access")
        self.page.wait_row("Web server")
        faults = self.judge("without privilege")
        self.assertFalse(faults, "\n".join(faults))


class Languages(PageCase):
    def test_german(self):
        german = translations("de")
        self.page.set_language("de-de")
        self.page.open("/")

        self.page.wait_for("button", german["Join a service"])

        self.assertTrue(self.page.script("return document.documentElement.lang").startswith("de"))
        for place in ("/", "/findings", "/history", "/service/nginx"):
            self.page.open(place)
            self.page.wait(lambda: self.page.has("heading") and not self.page.has("progressbar"), "the view")
            shown = self.page.script("return document.body.innerText").split("\n")
            left = [each for each in shown if german.get(each.strip(), each.strip()) != each.strip()]
            self.assertFalse(left, f"{place} is not in German: {left}")


class LongNames(PageCase):
    def make_appliance(self):
        super().make_appliance()
        self.name = "s" + "0123456789" * 20
        self.appliance.join({"service": self.name, "display-name": "Very " + "long " * 60 + "W" * 200})

    def test_they_break_and_do_not_widen_the_page(self):
        self.page.wait_row(self.name)
        for place in ("/", f"/service/{self.name}"):
            self.page.open(place)
            self.page.wait(lambda: self.name in self.page.script("return document.body.textContent"), "the name")
            for width in (NARROWEST, 1280):
                self.page.set_width(width)
                self.assertEqual(self.page.script(TOO_WIDE), [], f"{place} at {width}")


if __name__ == "__main__":
    unittest.main()
