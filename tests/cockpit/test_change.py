"""Levels are changed through the page, and what it says before and afterwards holds on the wire."""

import datetime
import re
import unittest

import bed
from browser import Dialog, Keys
from cases import PageCase

NEXT_YEAR = datetime.date.today().year + 1
WAITING = "Change waiting for confirmation"


class LevelOfOneService(PageCase):
    def test_the_preview_tells_what_would_change_and_writes_nothing(self):
        before = bed.STORE.read_bytes()

        dialog = self.choose_level("nginx", "Modern")

        dialog.wait_text(re.compile(r"Clients[\s\S]*Files[\s\S]*Reloaders[\s\S]*This machine"))
        dialog.wait_text("No record of clients is kept")
        dialog.wait_text("gives all that the level asks for")
        dialog.click("button", re.compile("Differences of .*/config/nginx.conf"))
        dialog.wait_text(re.compile(r"-ssl_protocols TLSv1\.2 TLSv1\.3;[\s\S]*\+ssl_protocols TLSv1\.3;"))
        dialog.click("button", "Cancel")
        dialog.wait_gone()
        self.assertEqual(bed.STORE.read_bytes(), before)
        self.assert_wire(bed.NGINX_PORT, "tls1_2", "tls1_3")

    def test_what_this_openssl_does_not_give_is_told(self):
        dialog = self.choose_level("tls_service", "Old")

        dialog.wait_for("list", "What OpenSSL of this machine does not give")
        dialog.wait_text(re.compile(r"TLS 1\.0.*security level"))

    def test_a_level_is_applied_and_kept(self):
        dialog = self.change_level("nginx", "Modern", reason="audit")
        dialog.wait_gone()

        self.page.wait_text("nginx", "region", WAITING)
        self.assert_wire(bed.NGINX_PORT, "tls1_3")
        self.page.wait_row("Web server", "modern", "In force")

        self.page.click("button", "Keep the change")

        self.page.wait_gone("region", WAITING)
        self.assertIsNone(self.settled())
        self.assert_wire(bed.NGINX_PORT, "tls1_3")
        last = self.appliance.command("history", "--json")["changes"][-1]
        self.assertEqual((last["result"], last["reason"]), ("confirmed", "audit"))

    def test_the_countdown_goes_on_over_a_reload(self):
        self.change_level("nginx", "Modern").wait_gone()
        self.page.wait_for("region", WAITING)
        before = self.page.wait_for("timer", "Time left").text
        self.page.wait(lambda: self.page.wait_for("timer", "Time left").text != before, "the time runs")

        self.page.driver.refresh()

        self.page.wait_for("region", WAITING)
        self.assertRegex(self.page.wait_for("timer", "Time left").text, r"4 ?min")
        self.page.click("button", "Take it back now")
        self.page.wait_gone("region", WAITING)
        self.assert_wire(bed.NGINX_PORT, "tls1_2", "tls1_3")
        self.assertEqual(self.appliance.level("nginx"), "default")

    def test_what_is_not_confirmed_goes_back_by_itself(self):
        self.appliance.command("set", "nginx", "modern", "--confirm", "4")
        self.page.wait_for("region", WAITING)
        self.page.wait_row("Web server", "modern")

        self.page.wait_gone("region", WAITING)

        self.page.wait_row("Web server", "default → intermediate", "In force")
        self.assert_wire(bed.NGINX_PORT, "tls1_2", "tls1_3")

    def test_without_confirmation_nothing_waits(self):
        self.change_level("nginx", "Modern", is_confirmed=False).wait_gone()

        self.page.wait_toast("Level changed")
        self.assertFalse(self.page.has("region", WAITING))
        self.assertIsNone(self.settled())
        self.assert_wire(bed.NGINX_PORT, "tls1_3")

    def test_a_level_has_an_end(self):
        dialog = self.choose_level("nginx", "Modern", is_confirmed=False, reason="the printer")
        dialog.get("Date", "Ends on").element.send_keys(f"0301{NEXT_YEAR}")
        dialog.click("button", "Apply")
        dialog.wait_gone()

        self.page.wait_row("Web server", "modern", str(NEXT_YEAR), "the printer")
        dated = self.appliance.command("list", "--json")["services"][0]["dated"]
        self.assertEqual((dated["then"]["name"], dated["reason"]), ("default", "the printer"))

    def test_live_progress_says_what_is_at_work(self):
        self.hold_reloader()

        dialog = self.change_level("tls_service", "Modern")
        self.wait_held()

        dialog.wait_text(re.compile(r"Reloading[\s\S]*running"))
        self.assertTrue(dialog.has("progressbar"))
        self.assertFalse(dialog.has("button", "Cancel"))
        self.release_reloader()
        dialog.wait_gone()
        self.assert_wire(bed.TLS_SERVICE_PORT, "tls1_3")

    def test_what_runs_can_be_stopped(self):
        self.hold_reloader()
        dialog = self.change_level("tls_service", "Modern")
        self.wait_held()

        dialog.click("button", "Stop")

        self.release_reloader()
        self.page.wait(lambda: self.settled() is None and self.appliance.level("tls_service") == "default",
                       "all is as it was")
        self.page.wait(lambda: self.page.has("button", "Close", dialog.found), "the end is told")
        self.assert_wire(bed.TLS_SERVICE_PORT, "tls1_2", "tls1_3")

    def test_by_the_keyboard_alone(self):
        self.page.wait_for("button", "Change level of nginx")
        self.page.tab_to("button", "Change level of nginx")
        self.page.press(Keys.ENTER)
        dialog = Dialog(self.page, "Change level of nginx")
        self.page.tab_to("radio", re.compile("^(Modern|Follow)"))
        self.page.press(Keys.SPACE)
        for _ in range(4):
            if self.page.focused.name.startswith("Modern"):
                break
            self.page.press(Keys.ARROW_DOWN)
        self.page.press(Keys.SPACE)
        self.page.wait(lambda: dialog.get("button", "Apply").is_enabled, "it can be applied")
        self.page.tab_to("button", "Apply")
        self.page.press(Keys.ENTER)
        dialog.wait_gone()

        self.page.wait_for("region", WAITING)
        self.page.tab_to("button", "Keep the change")
        self.page.press(Keys.ENTER)
        self.page.wait_gone("region", WAITING)
        self.assertEqual(self.appliance.level("nginx"), "modern")

    def test_escape_leaves_the_dialog_and_returns_to_the_button(self):
        self.page.wait_for("button", "Change level of nginx")
        self.page.tab_to("button", "Change level of nginx")
        self.page.press(Keys.ENTER)
        dialog = Dialog(self.page, "Change level of nginx")
        self.page.wait(lambda: self.page.has(self.page.focused.role, self.page.focused.name, dialog.found),
                       "the keyboard is in the dialog")
        self.page.press(Keys.ESCAPE)
        dialog.wait_gone()

        self.page.wait(lambda: self.page.focused.name == "Change level of nginx", "the keyboard is where it was")


class ClientsThatAreLost(PageCase):
    def make_appliance(self):
        super().make_appliance()
        self.record_clients()

    def test_they_are_named_before_a_level_is_applied(self):
        dialog = self.choose_level("nginx", "Modern")

        self.page.wait(lambda: self.page.find_all("grid", "Clients that would be lost", dialog.found)
                       or self.page.find_all("table", "Clients that would be lost", dialog.found), "the clients")
        dialog.wait_text("127.0.0.1")
        dialog.wait_text("TLS 1.2")

    def test_the_services_page_shows_them_by_version(self):
        self.page.open("/service/nginx")

        clients = self.page.wait_table("Clients by version")
        self.assertIn("TLS 1.2", clients.text)
        self.assertIn("TLS 1.3", clients.text)
        self.page.wait(lambda: self.page.find_all("image", re.compile(r"Connections by version: .*TLS 1\.2: \d")),
                       "the chart, told in words too")


class DefaultLevelAndMany(PageCase):
    def test_the_default_level_is_changed_for_all_that_follow(self):
        self.change_level(None, "Modern").wait_gone()
        self.page.wait_for("region", WAITING)

        self.assert_wire(bed.NGINX_PORT, "tls1_3")
        self.assert_wire(bed.TLS_SERVICE_PORT, "tls1_3")
        self.page.wait_text("modern", "region", "Default level")

        self.page.click("button", "Keep the change")
        self.page.wait_gone("region", WAITING)
        self.assertEqual(self.appliance.command("default", "--json")["default-level"]["name"], "modern")

    def test_many_are_changed_at_once(self):
        self.page.click("checkbox", "Select all on this page")
        self.page.click("button", "Change level of 2 services")
        dialog = Dialog(self.page, "Change level of 2 services")
        dialog.click("radio", "Modern")
        dialog.click("checkbox", "Take it back unless I confirm in time")
        dialog.click("button", "Apply")
        dialog.wait_gone()

        self.assert_wire(bed.NGINX_PORT, "tls1_3")
        self.assert_wire(bed.TLS_SERVICE_PORT, "tls1_3")
        self.assertEqual((self.appliance.level("nginx"), self.appliance.level("tls_service")), ("modern", "modern"))

    def test_what_is_pending_is_applied(self):
        self.appliance.command("set", "nginx", "modern")
        self.page.wait_row("Web server", "Pending render")

        self.page.click("button", "More actions")
        self.page.click("menuitem", "Apply what is pending")
        dialog = Dialog(self.page, "Apply what is pending")
        dialog.wait_text("nginx.conf")
        dialog.click("checkbox", "Take it back unless I confirm in time")
        dialog.click("button", "Apply")
        dialog.wait_gone()

        self.assert_wire(bed.NGINX_PORT, "tls1_3")
        self.page.wait_row("Web server", "In force")


if __name__ == "__main__":
    unittest.main()
