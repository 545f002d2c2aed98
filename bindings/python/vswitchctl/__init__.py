"""Control of the virtual switches of a hypervisor host.

Each operation of libvswitchctl is a function of the same name, with its arguments in the same order; what the C
interface writes through pointers comes back as the result, and a failing status is raised as a StatusError.
Buffers of the library are copied and released. Manual pages have the rest, as in `man VSDVS_GetMTU`.
"""

from ._library import BadParam, DriverList, Exists, NoMemory, NotFound, Record, StatusError, as_text
from ._operations import *
from ._status import Status
