"""Evidence capture and certification for Python.

Reports of photos and videos, their SHA-256 digests, the report store on the device, the certification
service (send, upload, status, certificate, newsletter) and offline verification of its certificates.

Operations that talk to the service block until they are done (other Python threads run meanwhile) and
return their answer or raise KivError; given ``callback=``, they return at once and call
``callback(value, error)`` later, on one of the SDK's threads. Wait for every callback before the
interpreter exits: the SDK cannot call into an interpreter that has shut down.
"""

from ._kivsdk import *  # noqa: F401,F403

__all__ = [name for name in dir() if not name.startswith("_")]
