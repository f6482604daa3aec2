# -*- coding: utf-8 -*-
# What every action plugin of the collection is: it runs on the controller
# alone (the device has no Python) and knows check mode.

from __future__ import absolute_import, division, print_function

__metaclass__ = type

from ansible.plugins.action import ActionBase


class DeviceAction(ActionBase):
    TRANSFERS_FILES = False
    _supports_check_mode = True
    _supports_async = False
