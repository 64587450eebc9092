"""A virtual device: a private root directory with only what a device has, and the services around it.

`device.virtual_device.VirtualDevice` is where to begin.
"""

PATIENCE = 100  # seconds to wait for what should come at once: a machine under load is no fault
