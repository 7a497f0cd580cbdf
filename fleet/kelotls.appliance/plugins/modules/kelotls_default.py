#!/usr/bin/python
# -*- coding: utf-8 -*-
# The work is done by the action plugin of the same name, on the controller.

from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r"""
module: kelotls_default
short_description: Set the default TLS level of an appliance
version_added: 1.0.0
description:
  - Stores the level of all services that have none of their own and, with I(apply), brings it into
    force.
  - One for which a step fails gets the former default level as its own, so that the others can keep
    the new one. Where all of them fail, the former default level is back. The task fails in both cases.
options:
  level:
    description: The level.
    type: str
    choices: [modern, intermediate, old]
    required: true
  apply:
    description: Renders, reloads and surveys the services that follow the default level.
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
      - Whether a running server can follow, nobody knows before it is tried.
  diff_mode:
    support: full
    description: The level, and the differences of rendered files.
author:
  - The kelotls authors (@kelotls)
"""

EXAMPLES = r"""
- name: Modern, wherever there is no reason for something else
  kelotls.appliance.kelotls_default:
    level: modern
    apply: true
"""

RETURN = r"""
before:
  description: The default level that was stored.
  returned: success
  type: str
  sample: intermediate
after:
  description: The default level that is stored now, or would be.
  returned: success
  type: str
  sample: modern
followers:
  description: The services that follow it.
  returned: success
  type: list
  elements: str
undone:
  description: The services for which a step failed.
  returned: success
  type: list
  elements: str
applied:
  description: What brings levels into force. Null where nothing is.
  returned: success
  type: dict
  contains:
    rendered:
      description: Each rendered file.
      type: list
      elements: dict
      contains:
        service:
          description: The service.
          type: str
          sample: nginx
        path:
          description: The file.
          type: str
        change:
          description: C(none), C(new) or C(changed).
          type: str
          sample: changed
    reloaders:
      description: The reloaders that run, in this order.
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
