#!/usr/bin/python
# -*- coding: utf-8 -*-
# The work is done by the action plugin of the same name, on the controller.

from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r"""
module: kelotls_info
short_description: Tell what TLS levels an appliance has
version_added: 1.0.0
description:
  - Tells levels, states, findings and version of an appliance in one round trip and one run of the
    command.
  - Levels and findings ask the running servers whose addresses are kept.
options:
  gather_subset:
    description:
      - What is told. C(levels) are levels and states of the services, C(findings) whatever is wrong,
        C(history) who changed what and why.
      - Findings walk all files that the command trusts. Beside levels, they ask no running server again.
    type: list
    elements: str
    choices: [levels, findings, version, history]
    default: [levels, findings, version]
extends_documentation_fragment:
  - kelotls.appliance.command
attributes:
  check_mode:
    support: full
    description: Nothing is changed.
  diff_mode:
    support: none
    description: There is nothing that changes.
author:
  - The kelotls authors (@kelotls)
"""

EXAMPLES = r"""
- name: Look
  kelotls.appliance.kelotls_info:
  register: appliance

- name: Everything is in force
  ansible.builtin.assert:
    that: item.value.state in ["in-force", "as-expected", "next-context"]
  loop: "{{ appliance.services | dict2items }}"
"""

RETURN = r"""
default_level:
  description: The default level.
  returned: with the subset levels
  type: str
  sample: intermediate
services:
  description: Each service by its name.
  returned: with the subset levels
  type: dict
  contains:
    display_name:
      description: Its name for people.
      type: str
      sample: Web server
    level:
      description: The stored level.
      type: str
      sample: default
    effective:
      description: The level that it is served at.
      type: str
      sample: intermediate
    state:
      description: As C(kelotlsctl list) tells it.
      type: str
      sample: in-force
    fault:
      description: What is wrong; empty where nothing is.
      type: str
    asked:
      description: C(files), or C(server) where its running server was asked.
      type: str
    server:
      description: Address, verdict and text of the running server. Null where it was not asked.
      type: dict
levels:
  description: The levels alone, as M(kelotls.appliance.kelotls_restore) takes them.
  returned: with the subset levels
  type: dict
  sample: {default: intermediate, services: {nginx: default}}
healthy:
  description: Whether there is no error and no warning.
  returned: with the subset findings
  type: bool
findings:
  description: What C(kelotlsctl check) found.
  returned: with the subset findings
  type: list
  elements: dict
  contains:
    severity:
      description: C(error), C(warning) or C(note).
      type: str
    path:
      description: Which file or directory.
      type: str
    text:
      description: What is wrong with it.
      type: str
    action:
      description: What to do.
      type: str
version:
  description: The command's version.
  returned: with the subset version
  type: str
  sample: 7.0.0
history:
  description: The records of C(kelotlsctl history), oldest first.
  returned: with the subset history
  type: list
  elements: dict
kelotlsctl_command:
  description: The command line that failed.
  returned: failure
  type: str
  sample: kelotlsctl --json set --apply -- nginx modern
kelotlsctl_message:
  description: What the command says is wrong.
  returned: failure
  type: str
  sample: no service "ngnix" has joined; did you mean "nginx"?
kelotlsctl_advice:
  description: What the command advises; may be empty.
  returned: failure
  type: str
  sample: kelotlsctl list shows those that have.
kelotlsctl_rc:
  description: The exit status, as the manual kelotlsctl(8) tells them.
  returned: failure
  type: int
  sample: 10
kelotlsctl_faults:
  description: Each single fault and where it lies.
  returned: failure
  type: list
  elements: dict
  contains:
    place:
      description: A place in a document, a file, or a service.
      type: str
      sample: $.services[0].mustache-path
    text:
      description: What is wrong there.
      type: str
      sample: is a number, must be a string
kelotlsctl_stderr:
  description: The lines of the standard error.
  returned: failure
  type: list
  elements: str
"""
