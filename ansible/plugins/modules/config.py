# -*- coding: utf-8 -*-
# The work is done on the controller by the action plugin of the same name.

from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r"""
---
module: config
short_description: Bring a TX-416 to the wanted settings
description:
  - Brings the settings of a TX-416 conference speakerphone to the wanted
    configuration, given as C(set) lines of the device's console (the text that
    C(txconfig show) prints).
  - Sends only the settings whose value differs, so a second run reports no
    change. Every line is checked against the device's grammar for the login
    account before anything is sent; a refused line fails the task with the
    device's message and changes nothing on that device.
  - Runs on the controller and reaches the device through the ordinary C(ssh)
    connection, where it runs C(txconfig); the device needs no Python. Use
    C(gather_facts=false) in plays against these devices.
  - The login account's rules hold; C(operator) (uid 1001) may not change the
    root-only settings.
version_added: 1.0.0
author: TX-416 console developers
extends_documentation_fragment:
  - tx416.device.device
options:
  lines:
    description:
      - The wanted settings, one C(set) line each, for example
        C(set speaker-volume 9) or C(set systemname "Room 4").
      - Lines starting with C(#) are comments.
    type: list
    elements: str
  src:
    description:
      - A file with the wanted settings, one C(set) line each (for example a
        saved backup). It is rendered as a Jinja2 template first, so it may use
        the host's variables.
      - Found like a template, in C(templates/) of the role or next to the
        playbook.
    type: str
  backup:
    description:
      - Saves the device's configuration text (C(txconfig show)) before
        changing anything, to C(backup_dir)/C(<inventory_hostname>.cfg) on the
        controller; the file is replaced as a whole.
      - With C(backup=true), C(lines) and C(src) may be left out; the task then
        only saves the configuration.
    type: bool
    default: false
  backup_dir:
    description:
      - The directory on the controller for the backups; created when missing.
        A relative path is taken from the playbook's directory.
      - Defaults to C(backup/) in the playbook's directory.
    type: path
  with_secrets:
    description:
      - Includes the settings that hold secrets (passwords, PINs, keys) in the
        backup and the diff, and shows their values in the changes. For the
        C(root) account only.
      - Backups made without it cannot give the secrets back.
    type: bool
    default: false
notes:
  - Check mode sends nothing and reports what would change.
  - Diff mode shows the device's configuration text before and after.
  - Settings that hold secrets are left out of the backup and the diff unless
    C(with_secrets=true).
attributes:
  check_mode:
    description: Reports what would change and sends nothing.
    support: full
  diff_mode:
    description: Shows the configuration text before and after.
    support: full
seealso:
  - module: tx416.device.command
  - module: tx416.device.facts
"""

EXAMPLES = r"""
- name: Set the ringer volume on every device
  tx416.device.config:
    lines:
      - set ringer-volume 12

- name: Bring every device to the baseline, saving its configuration first
  tx416.device.config:
    src: baseline.cfg.j2
    backup: true
    backup_dir: /srv/tx416/backup

- name: Only save every device's configuration
  tx416.device.config:
    backup: true
"""

RETURN = r"""
changes:
  description: One text per setting changed (in check mode, to be changed), old and new value.
  returned: when lines or src are given
  type: list
  elements: str
  sample: ["speaker-volume 9 -> 12"]
not_taken:
  description: The changes that the device did not take (it read back another value) or did not confirm; the task fails.
  returned: when there are such changes
  type: list
  elements: str
  sample: ["speaker-volume 9 -> 12: not taken, reads back 9"]
updates:
  description: The C(set) lines that brought the device to the wanted configuration.
  returned: in diff mode
  type: list
  elements: str
  sample: ["set speaker-volume 12"]
backup_path:
  description: The file that holds the saved configuration text.
  returned: when backup is true
  type: str
  sample: /srv/tx416/backup/room-4.cfg
rc:
  description: The exit status of C(txconfig) when it failed (2 nothing sent, 3 the device refused a line).
  returned: failed
  type: int
  sample: 2
"""
