# -*- coding: utf-8 -*-
# tx416.device.facts: the device's settings from `txconfig show --json` as
# facts, read through the task's connection; the device has no Python.

from __future__ import absolute_import, division, print_function

__metaclass__ = type

import json

from ansible.module_utils.common.text.converters import to_text
from ansible_collections.tx416.device.plugins.plugin_utils import device
from ansible_collections.tx416.device.plugins.plugin_utils.action_base import DeviceAction


class ActionModule(DeviceAction):

    def run(self, tmp=None, task_vars=None):
        result = super(ActionModule, self).run(tmp, task_vars)
        self.validate_argument_spec(argument_spec={})
        try:
            settings = json.loads(device.show(self, json_format=True))
        except device.DeviceError as e:
            result.update(failed=True, msg=to_text(e), rc=e.rc)
            return result
        except ValueError as e:
            result.update(failed=True, msg="txconfig show --json printed no JSON: %s" % e)
            return result
        result.update(changed=False, ansible_facts=dict(tx416=settings))
        return result
