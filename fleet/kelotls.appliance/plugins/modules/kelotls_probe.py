#!/usr/bin/python
# -*- coding: utf-8 -*-
# The work is done by the action plugin of the same name, on the controller.

from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r"""
module: kelotls_probe
short_description: Survey running servers
version_added: 1.0.0
description:
  - Finds out what running servers offer, from the appliance itself, and compares it with what the
    levels of their services ask for.
  - Fails where a server differs in a way that its author does not expect and that the OpenSSL of the
    appliance does not explain, where it does not say enough, and where none answers, unless I(accept)
    takes the verdict for good.
options:
  services:
    description: Names of services, or patterns with C(*), C(?) and C([...]). All whose address is kept
      where none is named.
    type: list
    elements: str
    default: []
  connect:
    description: Another address than the one that is kept, as C(localhost:443) or C(unix:/run/x). For one
      service.
    type: str
  starttls:
    description: What is spoken before TLS at I(connect).
    type: str
    choices: [smtp, imap, pop3, ftp, ldap, postgres, mysql, sieve, xmpp, nntp]
  server_name:
    description: The name that is asked for at I(connect).
    type: str
  timeout:
    description: Seconds for one hello. The command's own limit is 10.
    type: int
  deadline:
    description: Seconds for one server. The command's own limit is 300.
    type: int
  accept:
    description: The verdicts that are good in any case.
    type: list
    elements: str
    choices: [agrees, as-expected, differs, cannot-tell, no-answer]
    default: [agrees, as-expected]
extends_documentation_fragment:
  - kelotls.appliance.command
attributes:
  check_mode:
    support: full
    description: Nothing is changed. The servers are surveyed in check mode too.
  diff_mode:
    support: none
    description: There is nothing that changes.
author:
  - The kelotls authors (@kelotls)
"""

EXAMPLES = r"""
- name: Every running server does what its level asks for
  kelotls.appliance.kelotls_probe:

- name: So does the one on the inner network
  kelotls.appliance.kelotls_probe:
    services: [nginx]
    connect: 192.0.2.7:443
"""

RETURN = r"""
services:
  description: Each server that was surveyed.
  returned: success, and where a verdict is not accepted
  type: list
  elements: dict
  contains:
    service:
      description: The service.
      type: str
      sample: nginx
    target:
      description: What was asked. Null where nothing answers.
      type: str
    level:
      description: The level that it was compared with.
      type: str
      sample: modern
    verdict:
      description: C(agrees), C(as-expected), C(differs), C(cannot-tell) or C(no-answer).
      type: str
      sample: agrees
    good:
      description: Whether it does what its level asks for, as far as this machine can.
      type: bool
    differences:
      description: As C(kelotlsctl probe --json) tells them.
      type: list
      elements: dict
    not_known:
      description: What the server did not say.
      type: list
      elements: dict
    versions:
      description: The protocol versions that it accepts.
      type: list
      elements: str
      sample: [TLS 1.3]
    certificates:
      description: As C(kelotlsctl probe --json) tells them.
      type: list
      elements: dict
    text:
      description: What is not as it should be.
      type: str
not_asked:
  description: Selected services without an address.
  returned: success, and where a verdict is not accepted
  type: list
  elements: str
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
