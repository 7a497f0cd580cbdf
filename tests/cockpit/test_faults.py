"""What goes wrong meanwhile is told as the command says it, and nothing is lost by it."""

import os
import re
import unittest

import bed
from browser import Dialog, Keys
from cases import PageCase

WAITING = "Change waiting for confirmation"


class Faults(PageCase):
    def test_a_store_that_breaks_is_told_and_so_is_its_return(self):
        self.page.wait_row("Web server", "In force")
        good = bed.STORE.read_bytes()

        bed.STORE.write_text("oops", encoding="utf-8")

        self.page.wait_for("heading", "The data store cannot be used")
        self.page.wait_text("kelotlsctl recover")
        bed.STORE.write_bytes(good)
        self.page.wait_row("Web server", "In force")

    def test_a_store_that_breaks_between_preview_and_apply_changes_nothing(self):
        dialog = self.choose_level("nginx", "Modern")
        dialog.wait_text("gives all that the level asks for")
        good = bed.STORE.read_bytes()
        bed.STORE.write_text("oops", encoding="utf-8")

        dialog.click("button", "Apply")

        self.page.wait(lambda: any("cannot be used" in each.text for each in self.page.find_all("alert")),
                       "the command's own words")
        self.assertEqual(bed.STORE.read_text(encoding="utf-8"), "oops")
        self.assert_wire(bed.NGINX_PORT, "tls1_2", "tls1_3")
        bed.STORE.write_bytes(good)

    def test_who_holds_the_lock_is_told_while_one_waits_for_it(self):
        self.hold_reloader()
        other = self.appliance.begin("set", "tls_service", "old", "--apply")
        self.wait_held()

        dialog = self.change_level("nginx", "Modern", is_confirmed=False)

        dialog.wait_text(re.compile(r"lock|wait", re.I))
        self.release_reloader()
        other.wait()
        self.page.wait(lambda: self.appliance.level("nginx") == "modern", "its turn has come")
        self.assert_wire(bed.NGINX_PORT, "tls1_3")

    def test_a_reloader_that_fails_is_named_and_the_level_goes_back(self):
        self.break_reloader()

        dialog = self.change_level("tls_service", "Modern", is_confirmed=False)

        dialog.wait_for("heading", "What came of it")
        dialog.wait_text(re.compile("fail", re.I))
        dialog.wait_text("the service refuses")
        dialog.click("button", "Close")
        self.assertEqual(self.appliance.level("tls_service"), "default")
        self.assert_wire(bed.TLS_SERVICE_PORT, "tls1_2", "tls1_3")

    def test_a_change_that_cannot_be_taken_back_stays_in_sight(self):
        self.appliance.command("set", "tls_service", "modern", "--confirm", "5m")
        self.page.wait_for("region", WAITING)
        self.break_reloader()

        self.page.click("button", "Take it back now")

        self.page.wait_text("could not be taken back", "region", WAITING)
        self.page.wait_text("not every reloader has succeeded", "region", WAITING)
        self.write_reloader("kill -HUP $(cat /usr/kelo/run/tls_service.pid)\n")
        self.page.click("button", "Try again")
        self.page.wait(lambda: self.settled() is None, "it is taken back")
        self.page.wait_gone("button", "Try again")
        self.assert_wire(bed.TLS_SERVICE_PORT, "tls1_2", "tls1_3")

    def test_a_change_that_cannot_be_taken_back_can_be_left(self):
        self.appliance.command("set", "tls_service", "modern", "--confirm", "5m")
        self.page.wait_for("region", WAITING)
        self.break_reloader()
        self.page.click("button", "Take it back now")
        self.page.click("button", "Leave it as it is")

        Dialog(self.page, re.compile("Leave everything as it is?")).click("button", "Leave as it is")

        self.page.wait(lambda: self.settled() is None, "it is given up")
        self.page.wait_gone("button", "Try again")

    def test_a_command_that_is_missing_is_told(self):
        command = bed.KELOTLSCTL
        target = os.readlink(command)
        command.unlink()
        self.addCleanup(bed.link_anew, command, target)

        self.page.open("/")

        self.page.wait_text("kelotlsctl could not be started", "alert")

    def test_a_level_that_a_server_cannot_be_at_is_refused_in_the_preview(self):
        registration = bed.KELO / "share/tls_service/registration.json"
        text = registration.read_text(encoding="utf-8")
        (bed.KELO / "share/tls_service/expected.json").write_text(
            '{"modern": {"refused": "it knows no TLS 1.3"}}',
            encoding="utf-8")
        registration.write_text(text.replace('"reloader-path"', '"probe": {"address": "localhost:8444", "expected": '
                                             f'"{bed.KELO}/share/tls_service/expected.json"}}, "reloader-path"'),
                                encoding="utf-8")
        self.appliance.command("join", str(registration))

        dialog = self.choose_level("tls_service", "Modern")

        dialog.wait_text("it knows no TLS 1.3")
        self.assertFalse(dialog.get("button", "Apply").is_enabled)


class WithoutPrivilege(PageCase):
    user = "viewer"

    def test_it_can_be_read_and_says_why_it_cannot_be_changed(self):
        self.page.wait_text("You can look, but change nothing", "region", "Read-only access")
        self.page.wait_for("link", "TLS service")

        for name in ("Join a service", "Change default level", "Change level of nginx"):
            self.assertFalse(self.page.get("button", name).is_enabled, name)
        self.page.tab_to("button", "Join a service")
        before = bed.STORE.read_bytes()
        self.page.press(Keys.ENTER)
        self.assertFalse(self.page.has("dialog"))
        self.assertEqual(bed.STORE.read_bytes(), before)

    def test_a_change_that_waits_is_shown_and_cannot_be_kept(self):
        self.appliance.command("set", "nginx", "modern", "--confirm", "5m")

        self.page.wait(lambda: not self.page.has("button", "Keep the change")
                       or not self.page.get("button", "Keep the change").is_enabled, "nobody without rights keeps it")
        self.assertEqual(self.settled()["state"], "waiting")


class Privilege(PageCase):
    """An ordinary user who may become root, through Cockpit's own button."""

    user = None

    def test_it_comes_and_goes_with_cockpits_switch(self):
        self.page.log_in("operator", "/kelotls")
        self.page.wait_for("button", "Limited access")
        self.page.enter_frame()
        self.page.wait_for("region", "Read-only access")
        self.page.leave_frame()

        self.page.click("button", "Limited access")
        self.page.wait_text("You now have administrative access", "dialog")
        self.page.find_all("button", "Close", self.page.find_all("dialog")[0])[-1].click()
        self.page.wait_for("button", "Administrative access")

        self.page.enter_frame()
        self.page.wait_gone("region", "Read-only access")
        self.change_level("nginx", "Modern", is_confirmed=False).wait_gone()
        self.assert_wire(bed.NGINX_PORT, "tls1_3")


if __name__ == "__main__":
    unittest.main()
