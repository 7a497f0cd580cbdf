"""The connection is lost at each step of a change, and two browsers are at one appliance."""

import contextlib
import unittest

from selenium.common.exceptions import WebDriverException

import bed
from browser import FRAME, By
from cases import Machine, PageCase

WAITING = "Change waiting for confirmation"
SOON = 10  # seconds until one who waits in vain would load the page again


class LostConnection(PageCase):
    """In Cockpit's own frame, which tells of it; the door between browser and server is shut, then opened."""

    def log_in(self):
        self.page.log_in("root", "/kelotls")
        self.page.enter_frame()
        self.page.wait_row("Web server", "In force")

    def lose(self):
        self.door.shut()
        self.page.leave_frame()
        self.page.wait(lambda: self.page.driver.find_element(By.CSS_SELECTOR, ".curtains-ct, .curtains").is_displayed()
                       or not self.page.driver.find_element(By.CSS_SELECTOR, FRAME).is_displayed(), "Cockpit says so")

    def come_back(self):
        """In the same session, unless that ended with the connection, or a moment after as in newer ones."""
        self.door.open()
        self.page.wait(self.is_back, "the page, which stays")

    def is_back(self):
        if not self.page.open_in_shell():
            self.log_in_again()
        with contextlib.suppress(AssertionError, WebDriverException):
            return bed.wait_until(self.page.rows, "rows", SOON)
        return False

    def test_before_an_apply(self):
        dialog = self.choose_level("nginx", "Modern")
        dialog.wait_text("gives all that the level asks for")

        self.lose()
        self.come_back()

        self.page.wait_row("Web server", "default → intermediate", "In force")
        self.assertIsNone(self.settled())

    def test_during_an_apply(self):
        self.hold_reloader()
        self.change_level("tls_service", "Modern")
        self.wait_held()

        self.lose()
        self.release_reloader()
        self.come_back()

        # The loss ends the command, unless it was at its end: then the change waits, which nobody has to see.
        bed.wait_until(lambda: (self.settled() or {"state": "waiting"})["state"] == "waiting", "an end")
        if self.settled():
            self.page.click("button", "Take it back now")
        self.page.wait_gone("region", WAITING)
        self.page.wait_row("TLS service", "default → intermediate", "In force")
        self.assert_wire(bed.TLS_SERVICE_PORT, "tls1_2", "tls1_3")

    def test_during_an_apply_that_nobody_has_to_confirm(self):
        self.hold_reloader()
        self.change_level("tls_service", "Modern", is_confirmed=False)
        self.wait_held()

        self.lose()
        self.release_reloader()
        self.come_back()

        bed.wait_until(lambda: self.appliance.command("history", "--json")["changes"][-1].get("ended"), "an end")
        level = self.appliance.level("tls_service")
        self.page.wait_row("TLS service", level)
        self.assert_wire(bed.TLS_SERVICE_PORT, *(("tls1_3",) if level == "modern" else ("tls1_2", "tls1_3")))

    def test_while_a_change_waits(self):
        self.change_level("nginx", "Modern").wait_gone()
        self.page.wait_for("region", WAITING)

        self.lose()
        self.come_back()

        self.page.wait_for("region", WAITING)
        self.page.click("button", "Keep the change")
        self.page.wait_gone("region", WAITING)
        self.assert_wire(bed.NGINX_PORT, "tls1_3")

    def test_for_good_while_a_change_waits(self):
        self.appliance.command("set", "nginx", "modern", "--confirm", "3")
        self.page.wait_for("region", WAITING)

        self.lose()

        self.assert_wire(bed.NGINX_PORT, "tls1_2", "tls1_3")
        self.come_back()
        self.page.wait_row("Web server", "default → intermediate", "In force")

    def test_during_a_confirmation(self):
        self.change_level("nginx", "Modern").wait_gone()
        self.page.wait_for("button", "Keep the change")
        holder = bed.hold_lock()
        self.page.click("button", "Keep the change")

        self.lose()
        holder.close()
        self.come_back()

        bed.wait_until(lambda: (self.settled() or {"state": "waiting"})["state"] == "waiting", "an end")
        if self.settled() is None:  # the command had its turn before the loss reached it
            self.page.wait_gone("region", WAITING)
        else:
            self.page.wait_for("region", WAITING)
        self.assert_wire(bed.NGINX_PORT, "tls1_3")

    def test_the_server_that_ends_loses_nothing(self):
        self.change_level("nginx", "Modern").wait_gone()
        self.page.wait_for("region", WAITING)

        self.cockpit.stop()
        self.cockpit.start()
        self.log_in_again()

        self.page.wait_for("region", WAITING)
        self.page.click("button", "Take it back now")
        self.page.wait_gone("region", WAITING)
        self.assert_wire(bed.NGINX_PORT, "tls1_2", "tls1_3")

    def log_in_again(self):
        self.page.log_in("root", "/kelotls")
        self.page.enter_frame()

    def test_outside_of_the_frame_the_page_says_so_itself(self):
        self.page.leave_frame()
        self.page.open("/")
        self.page.wait_row("Web server", "In force")

        self.door.shut()

        self.page.wait_text("The connection to the appliance was lost", "alert")
        self.assertTrue(self.page.has("link", "Web server"), "what was there stays in sight")


class TwoBrowsers(PageCase):
    def setUp(self):
        super().setUp()
        self.other = Machine.browser(1)
        self.other.forget()
        self.other.come("root")

    def test_the_other_sees_what_waits_and_confirms_it(self):
        self.other.wait_row("Web server", "In force")

        self.change_level("nginx", "Modern").wait_gone()

        self.other.wait_row("Web server", "modern")
        self.other.click("button", "Keep the change")
        self.page.wait_gone("region", WAITING)
        self.assertEqual(self.appliance.level("nginx"), "modern")

    def test_while_one_waits_the_others_change_is_refused(self):
        first = self.page
        self.page = self.other
        late = self.choose_level("tls_service", "Modern", is_confirmed=False)
        late.wait_text("gives all that the level asks for")
        self.page = first
        self.change_level("nginx", "Modern").wait_gone()
        self.page.wait_for("region", WAITING)

        self.other.wait(lambda: late.has("alert") and "waits to be confirmed" in late.get("alert").text,
                        "that another change waits")
        self.assertFalse(late.get("button", "Apply").is_enabled)
        self.assertEqual(self.appliance.level("tls_service"), "default")
        first.click("button", "Keep the change")
        first.wait_gone("region", WAITING)
        late.click("button", "Apply")
        late.wait_gone()
        self.assertEqual(self.appliance.level("tls_service"), "modern")


if __name__ == "__main__":
    unittest.main()
