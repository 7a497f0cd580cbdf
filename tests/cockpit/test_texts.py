"""Texts that come from others are shown as texts, in each place in which there is one."""

import json
import re
import unittest

import bed
from browser import Dialog
from cases import DOWNLOADS, PageCase

HOSTILE = '<img src=x onerror="window.hit=1">\u202egnihton\u200b\x07'
SHOWN = re.compile(r'<img src=x onerror="window\.hit=1">\\u202egnihton\\u200b\\(x07|u0007)')
# What a page may not hold itself: it would act on what is around it.
UNSEEN = re.compile("[\x00-\x08\x0b-\x1f\x7f-\x9f\u200b-\u200f\u202a-\u202e\u2060-\u2069\ufeff]")


class TextsOfOthers(PageCase):
    """Each place where a text comes from outside holds one with HTML, with a control character, one that has no
    width and one that turns the direction of writing."""

    def make_appliance(self):
        super().make_appliance()
        store = json.loads(bed.STORE.read_text(encoding="utf-8"))
        service = HOSTILE.replace("/", "")
        store["services"][service] = {"display-name": HOSTILE, "current-level": 2}
        bed.STORE.write_text(json.dumps(store), encoding="utf-8")
        descriptor = json.loads((bed.PROFILE / "services/tls_service.conf").read_text(encoding="utf-8"))
        text = json.dumps(descriptor).replace("tls_service", json.dumps(service)[1:-1]).replace(
            "TLS service", json.dumps(HOSTILE)[1:-1])
        (bed.PROFILE / "services" / f"{service}.conf").write_text(text, encoding="utf-8")

    def assert_text(self, what=True):
        """That it is there, and a text."""
        def shown():
            return self.page.script("return document.body.innerText + '\\n' + [...document.querySelectorAll("
                                    "'input, textarea')].map(each => each.value).join('\\n')")
        if what:
            self.page.wait(lambda: SHOWN.search(shown()), "the text, escaped")
        self.assertIsNone(self.page.script("return window.hit || null"), "it was taken for HTML")
        names = "\n".join(each.name for role in ("button", "checkbox", "link", "heading", "dialog", "row", "radio")
                          for each in self.page.find_all(role))
        for place, text in (("the page", shown()), ("names", names)):
            found = UNSEEN.search(text)
            self.assertIsNone(found, f"{place}: {found and text[max(0, found.start() - 80):found.end() + 20]!r}")

    def test_names_of_services(self):
        self.page.wait_row(r"\u202egnihton")
        self.assert_text()

    def test_a_services_page(self):
        self.page.wait_row(r"\u202egnihton")
        self.page.script("[...document.querySelectorAll('tbody a')].find(each => each.textContent.includes('gnihton')).click()")
        self.page.wait_for("region", "Level")
        self.assert_text()

    def test_dialogs_of_a_service(self):
        self.page.click("button", re.compile(r"Change level of .*gnihton"))
        self.page.click("radio", "Modern")
        self.page.wait_text("Reloaders", "dialog")
        self.assert_text()
        self.page.click("button", "Cancel")
        self.page.wait_gone("dialog")
        self.page.click("button", re.compile(r"Actions for .*gnihton"))
        self.page.click("menuitem", "Leave")
        self.page.wait_text("holds a control character", "alert")  # no registration may name it
        self.assert_text()

    def test_reasons(self):
        self.appliance.command("set", "nginx", "modern", "--apply", "--until", self.days_ahead(60), "--reason", HOSTILE)
        self.appliance.command("set", "nginx", "modern", "--apply", "--reason", HOSTILE)
        self.page.open("/history")
        self.page.wait_table("History")
        self.assert_text()

    def test_what_a_reloader_says(self):
        self.write_reloader("printf '%s' '" + HOSTILE + "' >&2\nexit 1\n")
        dialog = self.change_level("tls_service", "Modern", is_confirmed=False)
        dialog.wait_for("heading", "What came of it")
        self.assert_text()

    def test_findings(self):
        (bed.PROFILE / "config" / (HOSTILE + ".conf.XXXXXX")).touch()
        (bed.PROFILE / "services" / (HOSTILE + "2.conf")).write_text("oops", encoding="utf-8")
        self.page.open("/findings")
        self.page.wait_for("list", "Findings")
        self.assert_text()

    def test_rendered_text(self):
        template = bed.KELO / "share/hostile.mustache"
        template.write_text("{{#mozilla_modern}}modern{{/mozilla_modern}} " + HOSTILE + "\n", encoding="utf-8")
        self.appliance.join({"service": "hostile", "display-name": "Hostile", "mustache-path": str(template)})
        self.appliance.command("render", "hostile")
        self.page.open("/service/hostile")
        self.page.wait_for("region", "Rendered file")
        self.assert_text()
        self.page.open("/")
        dialog = self.choose_level("hostile", "Modern")
        dialog.click("button", re.compile("Differences of"))
        self.assert_text()

    def test_faults_of_a_registration(self):
        self.page.click("button", "Join a service")
        dialog = Dialog(self.page, "Join a service")
        dialog.click("tab", "File")
        wrong = DOWNLOADS / "wrong.json"
        wrong.write_text(json.dumps({"services": [{"service": HOSTILE, "display-name": HOSTILE, HOSTILE: 1}]}),
                         encoding="utf-8")
        self.page.script("return document.querySelector('[role=dialog] input[type=file]')").send_keys(str(wrong))
        dialog.wait_for("list", "Faults")
        self.assertIsNone(self.page.script("return window.hit || null"))
        self.assertIsNone(UNSEEN.search(dialog.get("list", "Faults").text))

    def test_names_in_a_backup(self):
        backup = DOWNLOADS / "backup.json"
        backup.write_text(json.dumps({"default-level": 2, "services": {
            HOSTILE + "x": {"display-name": "x", "current-level": 1}}}), encoding="utf-8")
        self.page.click("button", "More actions")
        self.page.click("menuitem", "Restore levels")
        dialog = Dialog(self.page, "Restore levels")
        self.page.script("return document.querySelector('[role=dialog] input[type=file]')").send_keys(str(backup))
        dialog.wait_for("list", re.compile("In the backup, but not joined"))
        self.assert_text()


if __name__ == "__main__":
    unittest.main()
