#!/usr/bin/python
# -*- coding: utf-8 -*-
# The work is done by the action plugin of the same name, on the controller.

from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r"""
module: kelotls_service
short_description: Let services join or leave
version_added: 1.0.0
description:
  - Makes services join an appliance's framework as a registration says, or leave it.
  - The registration travels through the standard input of the command. No file of it is left on the
    appliance, not even for a moment.
  - A service that has joined keeps its level when it joins again.
options:
  state:
    description: Whether the services shall have joined.
    type: str
    choices: [present, absent]
    default: present
  registration:
    description: The registration, as kelotls-registration(5) describes it.
    type: dict
  src:
    description: A file on the controller that holds the registration as JSON.
    type: str
  services:
    description: Names of services that shall leave. For I(state=absent) alone.
    type: list
    elements: str
  replace:
    description: Takes the place of what joined under the name with another template or reloader.
    type: bool
    default: false
  reason:
    description: Why the change is made. It is kept in the appliance's history and system log.
    type: str
extends_documentation_fragment:
  - kelotls.appliance.command
attributes:
  check_mode:
    support: full
    description: Predicts what a real run does.
  diff_mode:
    support: full
    description: How each service has joined, before and after.
author:
  - The kelotls authors (@kelotls)
"""

EXAMPLES = r"""
- name: The web server has joined
  kelotls.appliance.kelotls_service:
    registration:
      services:
        - service: nginx
          display-name: Web server
          mustache-path: /usr/share/kelotls/services/nginx/template.mustache
          reloader-path: /usr/share/kelotls/services/nginx/reloader
          probe:
            address: localhost:8443

- name: The old file server is gone
  kelotls.appliance.kelotls_service:
    services: [ftp]
    state: absent
"""

RETURN = r"""
services:
  description: Every service of the registration.
  returned: success
  type: list
  elements: dict
  contains:
    service:
      description: Its name.
      type: str
      sample: nginx
    before:
      description: How it had joined. Null where it had not.
      type: dict
    after:
      description: How it has joined now, or would have. Null where it has left.
      type: dict
    changed:
      description: Whether the two differ.
      type: bool
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
