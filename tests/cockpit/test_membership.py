"""Services join and leave; levels are kept and brought back; DH parameters are made."""

import json
import re
import unittest

import bed
from browser import Dialog
from cases import DOWNLOADS, PageCase

DESCRIPTORS = bed.PROFILE / "services"


class Joining(PageCase):
    def make_appliance(self):
        self.appliance.make_empty()
        self.appliance.install_servers()

    def begin(self):
        self.page.wait_for("heading", "No service has joined")
        self.page.wait(lambda: self.page.has("button", "Join a service"), "the button")
        self.page.find_all("button", "Join a service")[0].click()
        return Dialog(self.page, "Join a service")

    def type_registration(self, dialog, text):
        dialog.click("tab", "File")
        self.page.script("arguments[0].focus()", dialog.get("textbox", "Registration").element)
        dialog.fill("textbox", "Registration", text)

    def test_from_the_catalogue_to_the_wire(self):
        dialog = self.begin()
        dialog.click("radio", re.compile("^nginx"))
        dialog.wait_text(re.compile("Web server"))
        dialog.click("button", "Join")
        # The server needs the rendered file to start, so nobody answers yet.
        dialog.wait_text(re.compile(r"nginx[\s\S]*no answer"))
        dialog.click("button", "Close")

        self.page.wait_row("Web server", "default → intermediate")
        self.assertTrue((bed.PROFILE / "config/nginx.conf").exists())
        self.appliance.start_nginx()
        self.assert_wire(bed.NGINX_PORT, "tls1_2", "tls1_3")

    def test_from_a_file_that_is_picked(self):
        dialog = self.begin()
        dialog.click("tab", "File")
        self.page.script("return document.querySelector('[role=dialog] input[type=file]')").send_keys(
            str(bed.KELO / "share/tls_service/registration.json"))
        dialog.wait_text("TLS service")
        dialog.click("button", "Join")
        dialog.wait_gone()

        self.page.wait_row("TLS service", "default → intermediate")

    def test_faults_are_shown_in_their_place(self):
        dialog = self.begin()
        self.type_registration(dialog, '{"services": [\n{"service": "a/b",\n"display-name": "A"}]}')

        faults = dialog.wait_for("list", "Faults")
        self.page.wait(lambda: "Line 2" in dialog.get("list", "Faults").text, "the line")
        self.assertIn("service", faults.text)
        self.assertFalse(dialog.get("button", "Join").is_enabled)
        dialog.click("button", "Show line 2")
        selected = self.page.script("const t = document.querySelector('[role=dialog] textarea');"
                                    "return t.value.substring(t.selectionStart, t.selectionEnd)")
        self.assertIn("a/b", selected)
        self.assertEqual(list(DESCRIPTORS.iterdir()), [])

    def test_what_is_no_json_is_told(self):
        dialog = self.begin()
        self.type_registration(dialog, "oops")

        dialog.wait_text(re.compile("JSON|json|Line 1|line 1"))
        self.assertFalse(dialog.get("button", "Join").is_enabled)

    def test_what_another_has_joined_as_needs_to_be_said(self):
        self.appliance.command("join", "/usr/share/kelotls/services/nginx/registration.json")
        self.page.wait_for("link", "Web server")
        self.page.click("button", "Join a service")
        dialog = Dialog(self.page, "Join a service")
        template = bed.KELO / "share/mine.mustache"
        template.write_text("{{#mozilla_modern}}modern{{/mozilla_modern}}\n", encoding="utf-8")
        self.type_registration(dialog, json.dumps({"services": [
            {"service": "nginx", "display-name": "Mine", "mustache-path": str(template)}]}))

        self.page.wait(lambda: dialog.has("checkbox", "Take the place of what joined before"), "the question")
        self.assertFalse(dialog.get("button", "Join").is_enabled)
        dialog.click("checkbox", "Take the place of what joined before")
        dialog.click("checkbox", "Render and reload now")
        dialog.click("button", "Join")
        self.page.wait(lambda: "Mine" in self.appliance.command("list"), "it has joined")


class Leaving(PageCase):
    def test_its_files_are_named_and_removed(self):
        self.assertTrue((DESCRIPTORS / "tls_service.conf").exists())
        self.page.click("button", "Actions for tls_service")
        self.page.click("menuitem", "Leave")
        dialog = Dialog(self.page, "Leave: tls_service")
        dialog.wait_for("list", "Files that will be removed")
        dialog.wait_text("tls_service")
        dialog.click("button", "Leave")
        self.page.wait_gone("link", "TLS service")
        keep = self.page.find_all("button", "Keep the change")
        if keep:
            self.page.click("button", "Keep the change")

        self.page.wait(lambda: "tls_service" not in self.appliance.command("list", "--names"), "it has left")
        self.assertFalse((DESCRIPTORS / "tls_service.conf").exists())

    def test_who_still_names_its_rendered_file_is_warned_of(self):
        self.page.click("button", "Actions for nginx")
        self.page.click("menuitem", "Leave")

        dialog = Dialog(self.page, "Leave: nginx")

        dialog.wait_for("list", "Still named in")
        dialog.wait_text("/usr/kelo/etc/nginx/nginx.conf")
        dialog.click("button", "Cancel")
        self.assertIn("nginx", self.appliance.command("list", "--names"))


class Keeping(PageCase):
    def choose(self, action):
        self.page.click("button", "More actions")
        self.page.click("menuitem", action)
        return Dialog(self.page, action)

    def back_up(self):
        self.choose("Back up levels").click("button", "Download")
        return bed.wait_until(lambda: [path for path in DOWNLOADS.glob("kelotls-levels-*.json")
                                       if path.stat().st_size], "the download")[0]

    def test_a_backup_is_downloaded_and_restored(self):
        self.appliance.command("set", "nginx", "modern", "--apply")
        backup = self.back_up()
        self.assertEqual(json.loads(backup.read_text(encoding="utf-8"))["services"]["nginx"]["current-level"], 1)
        self.page.wait_gone("dialog")
        self.appliance.command("set", "nginx", "intermediate", "--apply")
        self.assert_wire(bed.NGINX_PORT, "tls1_2", "tls1_3")

        dialog = self.choose("Restore levels")
        self.page.script("return document.querySelector('[role=dialog] input[type=file]')").send_keys(str(backup))
        self.page.wait(lambda: re.search(r"nginx\s+intermediate\s+modern", self.page.wait_table("Levels that change").text),
                       "what would change")
        dialog.click("button", "Restore")
        dialog.wait_gone()
        self.page.click("button", "Keep the change")
        self.page.wait_gone("button", "Keep the change")

        self.assertEqual(self.appliance.level("nginx"), "modern")
        self.assert_wire(bed.NGINX_PORT, "tls1_3")

    def test_a_file_that_is_no_backup_is_refused(self):
        wrong = DOWNLOADS / "wrong.json"
        wrong.write_text("[]", encoding="utf-8")
        before = bed.STORE.read_bytes()

        dialog = self.choose("Restore levels")
        self.page.script("return document.querySelector('[role=dialog] input[type=file]')").send_keys(str(wrong))

        self.page.wait(lambda: dialog.has("alert"), "the command's refusal")
        self.assertFalse(dialog.get("button", "Restore").is_enabled)
        self.assertEqual(bed.STORE.read_bytes(), before)

    def test_missing_dh_parameters_are_made(self):
        path = bed.KELO / "etc/ssl/dh2048.pem"
        path.unlink()

        dialog = self.choose("Make DH parameters")
        self.page.wait_table("DH parameters")
        dialog.wait_text("dh2048.pem")
        dialog.click("button", "Make files")
        dialog.wait_gone()

        self.assertIn("BEGIN DH PARAMETERS", path.read_text(encoding="ascii"))

    def test_dh_parameters_in_order_are_left(self):
        dialog = self.choose("Make DH parameters")

        self.page.wait_table("DH parameters")
        self.assertFalse(dialog.get("button", "Make files").is_enabled)


class OneService(PageCase):
    def test_shows_what_is_asked_for_and_what_is_offered(self):
        self.page.open("/service/nginx")

        self.page.wait_for("heading", "Web server")
        versions = self.page.wait_table("Protocol versions")
        self.assertEqual([each.name for each in self.page.find_all("columnheader", within=versions)][-2:],
                         ["TLS 1.2", "TLS 1.3"])
        said = [each.name for each in self.page.find_all("cell", within=versions)]
        self.assertEqual(said[-2:], ["asked for and offered"] * 2)
        self.assertTrue(all(each.startswith("neither asked for nor offered") for each in said[:-2]), said)
        suites = self.page.wait_table("Cipher suites")
        self.assertIn("TLS_AES_128_GCM_SHA256", suites.text)
        self.assertIn("ECDHE-RSA-AES256-GCM-SHA384", suites.text)
        self.page.wait_table("Groups")
        self.page.wait_text("/usr/kelo/etc/security-profile/tls-profile/config/nginx.conf", "region", "Rendered file")
        self.page.wait_text("ssl_protocols TLSv1.2 TLSv1.3;", "region", "Rendered file")
        self.page.wait_text("nginx", "region", "Reloader")
        self.page.wait_text("No record of clients is kept", "region", "Clients")

    def test_what_the_server_does_otherwise_is_named(self):
        path = bed.PROFILE / "config/nginx.conf"
        path.write_text(path.read_text(encoding="utf-8").replace("TLSv1.2 TLSv1.3", "TLSv1.3"), encoding="utf-8")
        bed.run("/usr/sbin/nginx", "-c", str(bed.KELO / "etc/nginx/nginx.conf"), "-s", "reload",
                stderr=bed.subprocess.DEVNULL)
        self.assert_wire(bed.NGINX_PORT, "tls1_3")

        self.page.open("/service/nginx")

        self.page.wait(lambda: "TLS 1.2" in self.page.wait_for("list", "Differences").text, "the difference")
        self.page.wait_text("asked for, not offered", "region", "Offer")

    def test_its_level_is_changed_there(self):
        self.page.open("/service/nginx")
        self.page.click("button", "Change level")
        dialog = Dialog(self.page, "Change level of nginx")
        dialog.click("radio", "Modern")
        dialog.click("checkbox", "Take it back unless I confirm in time")
        dialog.click("button", "Apply")
        dialog.wait_gone()

        self.assert_wire(bed.NGINX_PORT, "tls1_3")
        self.page.wait_text("modern", "region", "Level")

    def test_a_service_that_does_not_exist_is_told(self):
        self.page.open("/service/nobody")

        self.page.wait_text("nobody", "alert")

    def test_leads_to_its_history(self):
        self.page.open("/service/tls_service")
        self.page.click("link", "History of this service")

        self.page.wait_table("History")
        self.page.wait(lambda: all("tls_service" in row for row in self.page.rows()[1:]),
                       "its own alone")


if __name__ == "__main__":
    unittest.main()
