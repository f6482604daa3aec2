# -*- coding: utf-8 -*-
# tx416.device.config: brings a device to the wanted settings with txconfig,
# run through the task's connection; the device has no Python.

from __future__ import absolute_import, division, print_function

__metaclass__ = type

import os
import tempfile

from ansible.errors import AnsibleError
from ansible.module_utils.common.text.converters import to_bytes, to_text
from ansible_collections.tx416.device.plugins.plugin_utils import device
from ansible_collections.tx416.device.plugins.plugin_utils.action_base import DeviceAction

ARGUMENT_SPEC = dict(
    lines=dict(type="list", elements="str"),
    src=dict(type="str"),
    backup=dict(type="bool", default=False),
    backup_dir=dict(type="path"),
    with_secrets=dict(type="bool", default=False),
)


class ActionModule(DeviceAction):

    def run(self, tmp=None, task_vars=None):
        result = super(ActionModule, self).run(tmp, task_vars)
        _, args = self.validate_argument_spec(
            argument_spec=ARGUMENT_SPEC,
            mutually_exclusive=[("lines", "src")],
            required_if=[("backup", False, ("lines", "src"), True)],
        )
        try:
            wanted = self._wanted(args, task_vars or {})
        except AnsibleError as e:
            result.update(failed=True, msg=to_text(e))
            return result
        # A device that cannot be reached raises on: Ansible counts it unreachable.
        try:
            return self._configure(result, args, wanted, task_vars or {})
        except device.DeviceError as e:
            result.update(failed=True, msg=to_text(e), rc=e.rc)
            # Changes may have been made before txconfig stopped.
            if isinstance(e.stdout, str):
                self._report(result, device.report(e.stdout))
            return result

    def _wanted(self, args, task_vars):
        if args["src"] is None:
            return "".join(line + "\n" for line in args["lines"] or [])
        path = self._find_needle("templates", args["src"])
        with open(path, "rb") as f:
            text = to_text(f.read(), errors="surrogate_or_strict")
        templar = self._templar.copy_with_new_env(
            searchpath=[os.path.dirname(path)], available_variables=task_vars)
        return templar.template(text, preserve_trailing_newlines=True, escape_backslashes=False,
                                convert_data=False)

    def _configure(self, result, args, wanted, task_vars):
        secrets = args["with_secrets"]
        before = None
        if args["backup"] or self._task.diff:
            before = device.show(self, with_secrets=secrets)
        if args["backup"]:
            result["backup_path"] = self._write_backup(before, args["backup_dir"], task_vars)
        if args["src"] is None and not args["lines"]:
            result["changed"] = False
            return result

        updates = device.diff(self, wanted, secrets) if self._task.diff else None
        self._report(result, device.apply(self, wanted, self._task.check_mode, secrets))
        if updates is not None:
            result["updates"] = updates
            result["diff"] = dict(before=before, after=device.updated(before, updates),
                                  before_header="running configuration",
                                  after_header="wanted configuration")
        return result

    @staticmethod
    def _report(result, lines):
        result["changes"] = [l for l in lines if device.took_effect(l)]
        result["changed"] = bool(result["changes"])
        not_taken = [l for l in lines if not device.took_effect(l)]
        if not_taken:
            result["not_taken"] = not_taken

    def _write_backup(self, text, backup_dir, task_vars):
        """Writes the configuration text to BACKUP_DIR/<host>.cfg (default:
        backup/ next to the playbook), replacing the file as a whole."""
        if backup_dir is None:
            backup_dir = os.path.join(self._loader.get_basedir(), "backup")
        elif not os.path.isabs(backup_dir):
            backup_dir = os.path.join(self._loader.get_basedir(), backup_dir)
        os.makedirs(backup_dir, exist_ok=True)
        path = os.path.join(backup_dir, "%s.cfg" % task_vars.get("inventory_hostname", "device"))
        fd, partial = tempfile.mkstemp(dir=backup_dir, prefix=".backup-")
        try:
            with os.fdopen(fd, "wb") as f:
                f.write(to_bytes(text, errors="surrogate_or_strict"))
            os.replace(partial, path)
        except BaseException:
            os.unlink(partial)
            raise
        return path
