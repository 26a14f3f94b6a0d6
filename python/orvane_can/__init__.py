"""python-can interface for the CAN ports of Orvane CAN gateways:
``can.Bus(interface="orvane", channel="<gateway address>", port=0, bitrate=500000)``."""
from .bus import OrvaneBus

__all__ = ["OrvaneBus"]
