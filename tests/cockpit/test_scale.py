"""A thousand services: how soon something is to be seen, and how soon a filter has an effect."""

import itertools
import json
import statistics
import unittest

from cases import PageCase

COUNT = 1000
FIRST_PAINT_MOST, FILTERING_MOST = 1000, 100  # milliseconds
# The machine does other work, too: the best is what the page needs. Where that is too long, it gets more rounds.
ROUNDS, ROUNDS_MOST = 7, 30


class ThousandServices(PageCase):
    def make_appliance(self):
        self.appliance.make_empty()
        self.appliance.command("join", "-", stdin=json.dumps({"services": [
            {"service": f"service{number}", "display-name": f"Service number {number}"}
            for number in range(COUNT)]}))

    def test_first_paint_is_below_a_second(self):
        self.page.wait_text(f"{COUNT} of {COUNT} services", "status")
        self.page.driver.execute_cdp_cmd("Page.addScriptToEvaluateOnNewDocument", {"source": NOTE_ROWS})
        paints = []

        def time_to_rows():
            self.page.open("/")
            rows = self.page.wait(lambda: self.page.script("return window.rowsShown"), "rows")
            paints.append(self.page.script(
                "return performance.getEntriesByName('first-contentful-paint')[0].startTime"))
            return rows

        rows = measure(time_to_rows, FIRST_PAINT_MOST)
        tell("first contentful paint", paints)
        tell("first rows", rows)
        self.assertLess(min(paints), FIRST_PAINT_MOST)
        self.assertLess(min(rows), FIRST_PAINT_MOST)

    def test_filtering_is_below_a_tenth_of_a_second(self):
        self.page.wait_text(f"{COUNT} of {COUNT} services", "status")
        numbers = itertools.count(120)

        def filtering():
            text = f"number {next(numbers)}"
            return self.page.driver.execute_async_script(TIME_FILTERING, text, f"Service {text}")

        times = measure(filtering, FILTERING_MOST)
        tell("filtering", times)
        self.assertLess(min(times), FILTERING_MOST)

    def test_pages_lead_through_all_of_them(self):
        self.page.wait_row("Service number 0")
        self.assertLess(len(self.page.rows()), 110)

        self.page.wait(lambda: self.page.has("button", "Go to next page"), "the way on")
        self.page.find_all("button", "Go to next page")[0].click()

        self.page.wait(lambda: not self.page.has("link", "Service number 0"), "the next page")

    def test_all_levels_change_at_once(self):
        self.page.click("button", "Change default level")
        self.page.wait_for("dialog", "Change default level")
        self.page.click("radio", "Modern")
        self.page.click("checkbox", "Take it back unless I confirm in time")
        self.page.click("button", "Apply", "Change default level")
        self.page.wait_gone("dialog")

        self.assertEqual(self.appliance.command("default", "--json")["default-level"]["name"], "modern")
        self.page.wait_row("Service number 0", "default → modern")


def measure(take, most):
    times = [take() for _ in range(ROUNDS)]
    while min(times) >= most and len(times) < ROUNDS_MOST:
        times.append(take())
    return times


def tell(what, times):
    print(f"{what}: best {min(times):.0f} ms, median {statistics.median(times):.0f} ms, worst {max(times):.0f} ms", flush=True)


NOTE_ROWS = """
const look = () => {
  if (document.querySelector("tbody a")) requestAnimationFrame(() => { window.rowsShown = performance.now(); });
  else requestAnimationFrame(look);
};
look();
"""

# From the letter that is typed to the frame after the one in which only what matches is there.
TIME_FILTERING = """
const [text, wanted, done] = arguments;
const box = document.querySelector("input[aria-label='Filter by name']");
const set = Object.getOwnPropertyDescriptor(HTMLInputElement.prototype, "value").set;
const begun = performance.now();
set.call(box, text);
box.dispatchEvent(new Event("input", { bubbles: true }));
const look = () => {
  const links = [...document.querySelectorAll("tbody a")];
  if (links.length && links.every(link => link.textContent.includes(text)) && links.some(link => link.textContent === wanted)) {
    requestAnimationFrame(() => done(performance.now() - begun));
  } else requestAnimationFrame(look);
};
look();
"""


if __name__ == "__main__":
    unittest.main()
