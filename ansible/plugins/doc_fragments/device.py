# -*- coding: utf-8 -*-
# What every module of the collection shares: it runs on the controller and
# reaches the device, which has no Python, through the task's connection.

from __future__ import absolute_import, division, print_function

__metaclass__ = type


class ModuleDocFragment(object):
    DOCUMENTATION = r"""
attributes:
  platform:
    description: Runs on the controller; reaches the device with the C(ssh) connection.
    support: full
    platforms: tx416
"""
