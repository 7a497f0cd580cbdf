#!/usr/bin/python
# -*- coding: utf-8 -*-
# The work is done by the action plugin of the same name, on the controller.

from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r"""
module: kelotls_restore
short_description: Take TLS levels from a backup
version_added: 1.0.0
description:
  - Takes the default level and the levels of the joined services from a backup.
  - Services that are only in the backup, or only on the appliance, are named and left alone.
  - A backup of the controller travels through the standard input into a private temporary file, which
    is gone when the command has ended.
options:
  path:
    description: A backup on the appliance.
    type: path
  src:
    description: A backup on the controller.
    type: str
  levels:
    description: The levels themselves, as M(kelotls.appliance.kelotls_info) returns them.
    type: dict
    suboptions:
      default:
        description: The default level.
        type: str
        choices: [modern, intermediate, old]
        required: true
      services:
        description: The level of each service.
        type: dict
        default: {}
  apply:
    description: Also renders, reloads and surveys the services that are served at another level then,
      and those whose level is not in force.
    type: bool
    default: false
  reason:
    description: Why the change is made. It is kept in the appliance's history and system log.
    type: str
  reload_timeout:
    description: Seconds that a reloader may take. The command's own limit is 60.
    type: int
extends_documentation_fragment:
  - kelotls.appliance.command
attributes:
  check_mode:
    support: full
    description:
      - Predicts what a real run does, to the last value that it returns but for those
        that C(not_known) names.
  diff_mode:
    support: full
    description: Levels by service.
author:
  - The kelotls authors (@kelotls)
"""

EXAMPLES = r"""
- name: Back to the levels of the day of delivery
  kelotls.appliance.kelotls_restore:
    src: levels.json
    apply: true

- name: Back to what was there before
  kelotls.appliance.kelotls_restore:
    levels: "{{ before.levels }}"
    apply: true
"""

RETURN = r"""
default_level:
  description: The default level.
  returned: success
  type: dict
  contains:
    before:
      description: What was stored.
      type: str
      sample: modern
    after:
      description: What is stored now, or would be.
      type: str
      sample: intermediate
services:
  description: The services whose stored level differs from the backup.
  returned: success
  type: list
  elements: dict
  contains:
    service:
      description: Its name.
      type: str
      sample: nginx
    before:
      description: The level that was stored.
      type: str
    after:
      description: The level that is stored now, or would be.
      type: str
unknown:
  description: Services that are only in the backup.
  returned: success
  type: list
  elements: str
missing:
  description: Services that are not in the backup. They keep their levels.
  returned: success
  type: list
  elements: str
to_apply:
  description: The services that are rendered, reloaded and surveyed.
  returned: success
  type: list
  elements: str
not_known:
  description: The returned values that check mode cannot foresee, because the servers decide them. Where
    a server cannot follow, the command gives its service the former level back, and the task fails.
  returned: in check mode, where levels would be brought into force
  type: list
  elements: str
  sample: [surveyed, warnings]
surveyed:
  description: What the servers, or the library's contexts, showed. Nobody can know it beforehand.
  returned: after a real change that brings levels into force
  type: list
  elements: dict
  contains:
    service:
      description: The service.
      type: str
    asked:
      description: C(server), or C(library) where no address is kept.
      type: str
    result:
      description: C(in-force), C(failed), C(not-run) or C(not-seen).
      type: str
    verdict:
      description: Of the running server; null where the library was asked.
      type: str
    text:
      description: What is not as it should be; empty where all is.
      type: str
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
