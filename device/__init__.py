"""A virtual device: a private root directory with only what a device has, and the services around it.

`device.virtual_device.VirtualDevice` is where to begin.
"""
