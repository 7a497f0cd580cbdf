# -*- coding: utf-8 -*-
"""Runs commands in an appliance's tree on this machine."""

from __future__ import annotations

import os
import subprocess

from ansible.errors import AnsibleConnectionFailure
from ansible.plugins.connection import ConnectionBase

DOCUMENTATION = """
name: appliance_tree
author: The kelotls authors
short_description: Run commands in an appliance's tree
description: Enters the namespaces of a tree on this machine, as a login over the network would.
options:
  directory:
    description: The tree's directory.
    required: true
    vars:
      - name: tree_directory
"""

ENTER = os.path.join(os.path.dirname(__file__), "../../enter_tree")
GONE = 255


class Connection(ConnectionBase):
    """A connection to one tree. Where the tree is gone, or goes, so does the connection."""

    transport = "appliance_tree"
    has_pipelining = True

    def _connect(self):
        self._connected = True
        return self

    def exec_command(self, cmd, in_data=None, sudoable=True):
        super().exec_command(cmd, in_data=in_data, sudoable=sudoable)
        directory = self.get_option("directory")
        result = subprocess.run([ENTER, directory, cmd], input=in_data or b"", capture_output=True,
                                check=False)
        if result.returncode == GONE:
            raise AnsibleConnectionFailure(f"{directory}: the appliance is gone")
        return result.returncode, result.stdout, result.stderr

    def put_file(self, in_path, out_path):
        raise AnsibleConnectionFailure("no file is to be put on an appliance")

    def fetch_file(self, in_path, out_path):
        raise AnsibleConnectionFailure("no file is to be fetched from an appliance")

    def close(self):
        self._connected = False
