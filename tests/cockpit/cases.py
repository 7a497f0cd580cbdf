"""What every test begins with: a fresh appliance, and the page open in a browser."""

import datetime
import os
import pathlib
import shutil
import signal
import unittest

import bed
from browser import Browser, Dialog

DOWNLOADS = pathlib.Path("/tmp/downloads")
HELD, BEGUN = pathlib.Path("/run/reloader-held"), pathlib.Path("/run/reloader-begun")


class Machine:
    """What lasts from one test to the next: the tree, Cockpit and the browsers."""

    appliance = None
    cockpit = None
    door = None
    browsers = []
    spared = set()

    @classmethod
    def start(cls):
        if cls.appliance is not None:
            return
        build, page = os.environ["KELOTLS_BUILD"], os.environ["KELOTLS_PAGE"]
        bed.prepare_tree(os.path.join(build, "tools/kelotlsctl"), page)
        cls.appliance = bed.Appliance(build)
        cls.cockpit = bed.Cockpit()
        cls.cockpit.start()
        cls.door = bed.Door()
        bed.PrivilegedDoor()

    @classmethod
    def browser(cls, number=0):
        while len(cls.browsers) <= number:
            before = bed.children()
            cls.browsers.append(Browser(str(DOWNLOADS)))
            cls.spared |= bed.children() - before
        return cls.browsers[number]

    @classmethod
    def stop(cls):
        for browser in cls.browsers:
            browser.quit()


class PageCase(unittest.TestCase):
    """Each test has the appliance to itself."""

    user = "root"
    longMessage = True
    maxDiff = None

    def make_appliance(self):
        self.appliance.make()

    def setUp(self):
        Machine.start()
        self.appliance, self.cockpit, self.door = Machine.appliance, Machine.cockpit, Machine.door
        self.page = Machine.browser()
        self.addCleanup(self.end_what_runs)
        shutil.rmtree(DOWNLOADS, ignore_errors=True)
        DOWNLOADS.mkdir()
        self.make_appliance()
        self.page.forget()
        self.log_in()

    def log_in(self):
        if self.user is not None:
            self.page.come(self.user)

    def end_what_runs(self):
        """Servers, and who waits for a confirmation; Cockpit and the browsers stay."""
        self.door.open()
        for path in (HELD, BEGUN):
            path.unlink(missing_ok=True)
        for browser in Machine.browsers:
            browser.forget()
        bed.end_children({self.cockpit.number, *Machine.spared})

    def change_level(self, service, level, **what):
        """Through the dialog: what is chosen, and applied."""
        dialog = self.choose_level(service, level, **what)
        dialog.click("button", "Apply")
        return dialog

    def choose_level(self, service, level, is_confirmed=True, reason=None):
        self.page.click("button", f"Change level of {service}" if service else "Change default level")
        dialog = Dialog(self.page, f"Change level of {service}" if service else "Change default level")
        dialog.click("radio", level)
        if not is_confirmed:
            dialog.click("checkbox", "Take it back unless I confirm in time")
        if reason:
            dialog.fill("textbox", "Reason", reason)
        return dialog

    def hold_reloader(self):
        """That of the C service waits from now on, until it is let go; True once it has begun."""
        self.write_reloader(f"touch {BEGUN}\nwhile [ -e {HELD} ]; do sleep 0.02; done\n"
                            "kill -HUP $(cat /usr/kelo/run/tls_service.pid)\n")
        HELD.touch()

    def wait_held(self):
        bed.wait_until(BEGUN.exists, "the reloader has begun")

    def release_reloader(self):
        HELD.unlink(missing_ok=True)

    def break_reloader(self):
        self.write_reloader("echo 'the service refuses' >&2\nexit 1\n")

    def write_reloader(self, text):
        (bed.KELO / "share/tls_service/reloader").write_text("#!/bin/sh\n" + text, encoding="utf-8")

    @staticmethod
    def days_ahead(days):
        return (datetime.date.today() + datetime.timedelta(days)).isoformat()

    def record_clients(self):
        """Of nginx: one that knows no more than TLS 1.2, and others."""
        record = self.appliance.begin("clients", "record", "nginx")

        def has_both():
            for version in ("tls1_2", "tls1_3"):
                bed.accepts(bed.NGINX_PORT, version)
            record.send_signal(signal.SIGUSR1)
            shown = self.appliance.run("clients", "show", "nginx", "--json").stdout
            return shown.count("TLS 1.2") > 1 and "TLS 1.3" in shown

        bed.wait_until(has_both, "both clients are on record")
        record.terminate()
        record.wait()

    def settled(self):
        """What the command's status says of a change that waits; None where none does."""
        return self.appliance.command("status", "--json")["waiting"]

    def assert_wire(self, port, *versions):
        """What the server takes, waiting until it does: old processes may answer beside new ones for a moment."""
        def taken():
            return tuple(version for version in ("tls1_2", "tls1_3") if bed.accepts(port, version))
        bed.wait_until(lambda: taken() == versions, lambda: f"{port} takes {versions}; it takes {taken()}")
