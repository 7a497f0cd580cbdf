# -*- coding: utf-8 -*-
"""What is the same for all modules of the collection."""

from __future__ import absolute_import, division, print_function

__metaclass__ = type


class ModuleDocFragment(object):
    """How the command is run."""

    DOCUMENTATION = r"""
requirements:
  - A POSIX shell and C(kelotlsctl) on the appliance. Python is not needed there.
  - A connection that passes a standard input, such as ssh.
options:
  executable:
    description: The management command on the appliance.
    type: str
    default: kelotlsctl
attributes:
  check_mode:
    description: Can run in check mode.
  diff_mode:
    description: Returns what changes when in diff mode.
"""
