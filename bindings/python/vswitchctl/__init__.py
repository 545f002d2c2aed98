"""Control of the virtual switches of a hypervisor host.

Each operation of libvswitchctl is a function of the same name, with its arguments in the same order; what the C
interface writes through pointers comes back as the result, and a failing status is raised as a StatusError that names
the switch, port and other names of the call. A value that doesn't fit an argument is a TypeError, ValueError or
OverflowError that names the argument.
Buffers of the library are copied and released. Manual pages have the rest, as in `man VSDVS_GetMTU`.

`Host` has the same as objects: `Host().switches["lab"].ports["port0"].vlan = Vlan(100, priority=3)`.
"""

from ._library import BadParam as BadParam
from ._library import DriverList as DriverList
from ._library import Exists as Exists
from ._library import NoMemory as NoMemory
from ._library import NotFound as NotFound
from ._library import Record as Record
from ._library import StatusError as StatusError
from ._library import as_text as as_text
from ._operations import *
from ._status import Status as Status
from .host import Host as Host
from .host import Missing as Missing
from .host import Port as Port
from .host import PortsNotListed as PortsNotListed
from .host import RecordNotPublished as RecordNotPublished
from .host import Switch as Switch
from .host import TransactionFailed as TransactionFailed
from .host import Uplink as Uplink
from .records import EthFilter as EthFilter
from .records import FilterRule as FilterRule
from .records import MirrorSession as MirrorSession
from .records import PortLearning as PortLearning
from .records import PrivateVlan as PrivateVlan
from .records import Security as Security
from .records import Statistics as Statistics
from .records import SwitchLearning as SwitchLearning
from .records import Teaming as Teaming
from .records import Vlan as Vlan

__version__ = "1.0.0"
