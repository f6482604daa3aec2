# -*- coding: utf-8 -*-
# The work is done on the controller by the action plugin of the same name.

from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r"""
---
module: facts
short_description: Read a TX-416's settings as facts
description:
  - Reads every setting that the login account may read and change
    (C(txconfig show --json)) and sets them as facts under
    C(ansible_facts.tx416.settings), by name, and for settings held per id (a
    VoIP line, a microphone) by id. Values are exactly as the device gives them.
  - Settings that hold secrets are left out.
  - Runs on the controller and reaches the device through the ordinary C(ssh)
    connection; the device needs no Python.
version_added: 1.0.0
author: TX-416 console developers
extends_documentation_fragment:
  - tx416.device.device
options: {}
attributes:
  check_mode:
    description: Reads only, also in check mode.
    support: full
  diff_mode:
    description: Not relevant.
    support: none
  facts:
    description: Sets facts under C(ansible_facts.tx416).
    support: full
seealso:
  - module: tx416.device.config
"""

EXAMPLES = r"""
- name: Read the settings
  tx416.device.facts:

- name: Show the speaker volume
  ansible.builtin.debug:
    msg: "{{ ansible_facts.tx416.settings['speaker-volume'] }}"
"""

RETURN = r"""
ansible_facts:
  description: The settings.
  returned: success
  type: dict
  contains:
    tx416:
      description: The document that C(txconfig show --json) prints.
      type: dict
      contains:
        settings:
          description: The values by setting name; a setting held per id maps each id to its value.
          type: dict
          sample: {"speaker-volume": "9", "systemname": "conference-room"}
        secrets_left_out:
          description: The names of the settings that hold secrets, left out.
          type: list
          elements: str
        voip_left_out:
          description: The names of the settings left out because the device has no VoIP.
          type: list
          elements: str
"""
