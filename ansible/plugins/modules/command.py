# -*- coding: utf-8 -*-
# The work is done on the controller by the action plugin of the same name.

from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r"""
---
module: command
short_description: Run console commands on a TX-416
description:
  - Runs lines of the TX-416 console language (C(get speaker-volume),
    C(dial 1 1234), C(help voip)) one after the other with C(cli -c) on the
    device and returns their replies.
  - Reports C(changed) for every line but C(get) and C(help) lines.
  - A line that the device's grammar refuses for the login account fails the
    task with C(command syntax error) and the line; the lines after it are not
    run.
  - Runs on the controller and reaches the device through the ordinary C(ssh)
    connection; the device needs no Python. Nothing is run when C(cliconn) is
    not running on the device.
  - For settings, M(tx416.device.config) sends only what differs.
version_added: 1.0.0
author: TX-416 console developers
extends_documentation_fragment:
  - tx416.device.device
options:
  commands:
    description:
      - The console lines to run, in order; at most 126 characters each.
    type: list
    elements: str
    required: true
notes:
  - In check mode only C(get) and C(help) lines are run; the others are
    reported as not sent.
attributes:
  check_mode:
    description: Runs the lines that only read.
    support: partial
  diff_mode:
    description: Not supported.
    support: none
seealso:
  - module: tx416.device.config
"""

EXAMPLES = r"""
- name: Read the speaker volume
  tx416.device.command:
    commands:
      - get speaker-volume
  register: volume

- name: Call 1234 on line 1
  tx416.device.command:
    commands:
      - dial 1 1234
"""

RETURN = r"""
stdout:
  description: The reply to each line, in the order of C(commands); empty for a line not sent in check mode.
  returned: always
  type: list
  elements: str
  sample: ["val speaker-volume 9"]
stdout_lines:
  description: The replies split into lines.
  returned: always
  type: list
  elements: list
  sample: [["val speaker-volume 9"]]
rc:
  description: 3 when the grammar refused a line, 2 when C(cliconn) is not running.
  returned: failed
  type: int
  sample: 3
"""
