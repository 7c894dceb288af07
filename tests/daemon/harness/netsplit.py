"""A second machine: a network namespace behind a cable that a test can cut silently."""

import ctypes
import os
import socket
import subprocess
import threading

from .children import spawn
from .client import PORT, Client
from .waiting import eventually

NEAR, FAR = "10.63.35.1", "10.63.35.2"
_MASK = "/24"
_FAR_MAC = "02:00:00:00:63:35"
_OTHER_MAC = "02:00:00:00:63:36"
_CLONE_NEWNET = 0x40000000
_SYS_PIDFD_GETFD = 438

_libc = ctypes.CDLL(None, use_errno=True)


class FarClient(Client):
    """A client on the other machine."""

    def __init__(self, far_socket):
        self.timeout = 5.0
        self.socket = far_socket


class OtherMachine:
    def __enter__(self):
        self._clients = []
        # The namespace lasts as long as this process.
        self._holder = spawn(["unshare", "--net", "sleep", "infinity"])
        self._namespace = f"/proc/{self._holder.pid}/ns/net"
        own = os.readlink("/proc/self/ns/net")
        eventually(lambda: os.readlink(self._namespace) != own, what="the other namespace")
        _ip(f"link add near type veth peer name far address {_FAR_MAC} netns {self._holder.pid}")
        _ip(f"address add {NEAR}{_MASK} dev near")
        _ip("link set near up")
        self._far_ip(f"address add {FAR}{_MASK} dev far")
        self._far_ip("link set far up")
        # A permanent entry: a failed look-up would report the missing peer to the sender.
        _ip(f"neighbour replace {FAR} lladdr {_FAR_MAC} dev near nud permanent")
        return self

    def __exit__(self, *_):
        for client in self._clients:
            client.close()
        _ip("link delete near")
        self._holder.kill()
        self._holder.wait()

    def connect(self, receive_buffer=None):
        """Returns a client on the other machine; `receive_buffer` sets the size of its buffer."""
        far = self._socket()
        if receive_buffer:
            far.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        client = FarClient(far)
        self._clients.append(client)
        client.socket.settimeout(client.timeout)
        client.socket.connect((NEAR, PORT))
        return client

    def reach(self, port):
        """Returns a socket of the other machine with a connection to this one. The caller closes it."""
        far = self._socket()
        far.settimeout(10)
        far.connect((NEAR, port))
        return far

    def listen(self, port):
        """Returns a socket that listens on the other machine. The caller closes it."""
        far = self._socket()
        far.bind((FAR, port))
        far.listen()
        return far

    def _socket(self):
        made = []

        def make():
            with open(self._namespace, "rb") as namespace:
                if _libc.setns(namespace.fileno(), _CLONE_NEWNET) != 0:
                    made.append(OSError(ctypes.get_errno(), "setns"))
                    return
            # A socket stays in the namespace of the thread that created it.
            made.append(socket.socket())

        thread = threading.Thread(target=make)
        thread.start()
        thread.join()
        if isinstance(made[0], OSError):
            raise made[0]
        return made[0]

    def vanish(self):
        """Drops all packets to the other machine from now on, without an error."""
        self._far_ip(f"link set far address {_OTHER_MAC}")

    def _far_ip(self, arguments):
        _ip(arguments, ["nsenter", f"--net={self._namespace}"])


def socket_of(pid, client):
    """Returns a duplicate of the socket with which process `pid` serves this client."""
    wanted = client.socket.getsockname()
    process = os.pidfd_open(pid)
    try:
        for entry in os.listdir(f"/proc/{pid}/fd"):
            descriptor = _libc.syscall(_SYS_PIDFD_GETFD, process, int(entry), 0)
            if descriptor < 0:
                continue
            try:
                handle = socket.socket(fileno=descriptor)
            except OSError:
                os.close(descriptor)
                continue
            try:
                if handle.getpeername()[1] == wanted[1]:
                    return handle
            except OSError:
                pass
            handle.close()
    finally:
        os.close(process)
    raise AssertionError(f"process {pid} has no socket to {wanted}")


def _ip(arguments, inside=()):
    subprocess.run([*inside, "ip", *arguments.split()], check=True)
