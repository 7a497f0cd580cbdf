"""What the overview shows, and that it follows what is done elsewhere."""

import datetime
import re
import unittest

import bed
from cases import PageCase

YEAR = str(datetime.date.today().year + 2)


class Overview(PageCase):
    def test_each_service_has_its_level_and_state(self):
        self.appliance.command("set", "nginx", "modern", "--apply")

        self.page.wait_table("Services")

        self.page.wait_row("Web server", "modern", "In force")
        self.page.wait_row("TLS service", "default → intermediate", "In force")

    def test_an_exception_shows_its_date_and_reason(self):
        self.appliance.command("set", "nginx", "modern", "--apply", "--until", f"{YEAR}-03-01", "--reason",
                               "the printer")

        self.page.wait_row("Web server", "modern", YEAR, "the printer")

    def test_the_default_level_says_who_follows_it(self):
        self.appliance.command("set", "nginx", "modern", "--apply")
        self.page.wait_text("1 of 2 services", "region", "Default level")

        self.page.click("link", re.compile("1 of 2 services"))

        self.page.wait(lambda: not self.page.has("link", "Web server"), "nginx is filtered out")
        self.assertTrue(self.page.has("link", "TLS service"))

    def test_findings_say_what_to_do(self):
        (bed.KELO / "etc/ssl/dh2048.pem").unlink()

        self.page.open("/findings")

        self.page.wait_text(re.compile(r"dh2048\.pem[\s\S]*kelotlsctl dh"), "list", "Findings")

    def test_history_is_there_newest_first(self):
        self.appliance.command("set", "nginx", "modern", "--apply", "--reason", "audit")
        self.appliance.command("default", "modern")

        self.page.open("/history")

        self.page.wait_table("History")
        self.page.wait(lambda: len(self.page.rows()) > 2, "rows")
        rows = self.page.rows()
        self.assertRegex(rows[1], "default.*intermediate → modern")
        self.assertRegex(rows[2], "set.*nginx.*default → modern.*audit")

    def test_a_change_made_elsewhere_appears(self):
        self.page.wait_row("Web server", "default → intermediate", "In force")

        for level in ("modern", "intermediate"):  # what is read while the page loads may have the first one already
            self.appliance.command("set", "nginx", level, "--apply")

            self.page.wait_row("Web server", level, "In force")

    def test_a_rendered_file_that_is_changed_by_hand_appears(self):
        self.page.wait_row("Web server", "In force")

        with open(bed.PROFILE / "config/nginx.conf", "a", encoding="utf-8") as file:
            file.write("# by hand\n")

        self.page.wait_row("Web server", "Pending render")

    def test_undo_and_redo_reach_the_wire(self):
        self.appliance.command("set", "nginx", "modern", "--apply")
        self.assert_wire(bed.NGINX_PORT, "tls1_3")
        self.page.open("/history")

        self.page.click("button", "Undo last change")
        self.page.wait_text("nginx", "dialog", "Undo last change")
        self.page.click("button", "Undo", "Undo last change")
        self.page.wait_gone("dialog")

        self.assert_wire(bed.NGINX_PORT, "tls1_2", "tls1_3")
        self.assertEqual(self.appliance.level("nginx"), "default")

        self.page.click("button", "Redo")
        self.page.wait_text("nginx", "dialog", "Redo the change taken back")
        self.page.click("button", "Redo", "Redo the change taken back")
        self.page.wait_gone("dialog")

        self.assert_wire(bed.NGINX_PORT, "tls1_3")

    def test_what_cannot_be_undone_says_why(self):
        self.page.open("/history")

        self.page.click("button", "Undo last change")

        self.page.wait_text("join", "alert")
        self.assertFalse(self.page.get("button", "Undo").is_enabled)

    def test_what_is_typed_filters_the_services(self):
        self.page.wait_for("link", "TLS service")
        self.page.fill("textbox", "Filter by name", "ngi")

        self.page.wait_gone("link", "TLS service")
        self.assertTrue(self.page.has("link", "Web server"))
        self.page.fill("textbox", "Filter by name", "nothing like it")
        self.page.wait_for("heading", "No service matches")
        self.page.wait(lambda: self.page.has("button", "Clear all filters"), "the way back")
        self.page.find_all("button", "Clear all filters")[-1].click()
        self.page.wait_for("link", "TLS service")

    def test_the_filter_survives_a_reload(self):
        self.page.wait_for("link", "TLS service")
        self.page.fill("textbox", "Filter by name", "ngi")
        self.page.wait_gone("link", "TLS service")

        self.page.driver.refresh()

        self.page.wait_for("link", "Web server")
        self.assertFalse(self.page.has("link", "TLS service"))

    def test_services_that_need_attention_can_be_picked(self):
        with open(bed.PROFILE / "config/nginx.conf", "a", encoding="utf-8") as file:
            file.write("# by hand\n")

        self.page.click("link", re.compile("1 Pending render"))

        self.page.wait_gone("link", "TLS service")
        self.page.wait_row("Web server", "Pending render")


class NothingJoined(PageCase):
    def make_appliance(self):
        self.appliance.make_empty()

    def test_says_so_and_offers_to_join(self):
        self.page.wait_for("heading", "No service has joined")
        self.page.wait(lambda: self.page.has("button", "Join a service"), "the way to join")


if __name__ == "__main__":
    unittest.main()
