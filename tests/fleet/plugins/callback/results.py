# -*- coding: utf-8 -*-
"""Keeps the result of every task on every host, one JSON object on each line of a file."""

from __future__ import annotations

import json
import os

from ansible.plugins.callback import CallbackBase

DOCUMENTATION = """
name: results
type: aggregate
short_description: Keep all results
description: Writes each result as a line of JSON to the file that C(FLEET_RESULTS) names.
"""


class CallbackModule(CallbackBase):
    """Writes a line for each result, in the order in which they come."""

    CALLBACK_VERSION = 2.0
    CALLBACK_TYPE = "aggregate"
    CALLBACK_NAME = "results"

    def _keep(self, kind, result):
        with open(os.environ["FLEET_RESULTS"], "a", encoding="utf-8") as file:
            json.dump({"kind": kind, "host": result._host.get_name(), "task": result._task.get_name(),
                       "action": result._task.action, "result": result._result}, file, default=str)
            file.write("\n")

    def v2_runner_on_ok(self, result):
        self._keep("ok", result)

    def v2_runner_on_failed(self, result, ignore_errors=False):
        self._keep("failed", result)

    def v2_runner_on_unreachable(self, result):
        self._keep("unreachable", result)

    def v2_runner_on_skipped(self, result):
        self._keep("skipped", result)
