# -*- coding: utf-8 -*-
# tx416.device.command: runs console lines with `cli -c` on the device
# through the task's connection; the device has no Python.

from __future__ import absolute_import, division, print_function

__metaclass__ = type

from ansible.module_utils.common.text.converters import to_text
from ansible_collections.tx416.device.plugins.plugin_utils import device
from ansible_collections.tx416.device.plugins.plugin_utils.action_base import DeviceAction

ARGUMENT_SPEC = dict(commands=dict(type="list", elements="str", required=True))


class ActionModule(DeviceAction):

    def run(self, tmp=None, task_vars=None):
        result = super(ActionModule, self).run(tmp, task_vars)
        _, args = self.validate_argument_spec(argument_spec=ARGUMENT_SPEC)
        lines = args["commands"]
        for line in lines:
            problem = device.check_command_line(line)
            if problem:
                result.update(failed=True, msg=problem)
                return result

        # Check mode reads but does not act: a line not sent has no reply.
        plan = [(l, device.is_query(l) or not self._task.check_mode) for l in lines]
        sent = [l for l, send in plan if send]
        warnings = ["check mode: not sent: %s" % l for l, send in plan if not send]
        if warnings:
            result["warnings"] = warnings
        result["changed"] = any(not device.is_query(l) for l in lines)
        try:
            got = device.run_commands(self, sent) if sent else []
        except device.DeviceError as e:
            got = e.stdout
            result.update(failed=True, msg=to_text(e), rc=e.rc)
            # The line that stopped the batch did nothing.
            stopped = e.rc in (device.SYNTAX_STATUS, device.TURNED_AWAY_STATUS)
            acted = sent[:len(got) - (1 if stopped else 0)]
            result["changed"] = any(not device.is_query(l) for l in acted)
        replies = []
        pending = iter(got)
        for _, send in plan:
            reply = next(pending, None) if send else ""
            if reply is None:
                break
            replies.append(reply)
        result["stdout"] = replies
        result["stdout_lines"] = [r.splitlines() for r in replies]
        return result
