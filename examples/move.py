#!/usr/bin/env python3
"""Prints the position of gripper 9 and moves this gripper, which must be active.

    move.py HOST POSITION
"""
import socket
import sys

host, goal = sys.argv[1:]
with socket.create_connection((host, 63352), timeout=5) as daemon:
    replies = daemon.makefile("rb")
    # The reply to a GET is a line.
    daemon.sendall(b"GET POS\n")
    position = replies.readline().decode().split()[1]
    print("from", position)
    # The reply to a SET has three characters and no line ending.
    daemon.sendall(f"SET POS {goal} SPE 255 FOR 100 GTO 1\n".encode())
    reply = replies.read(3).decode()
    print(f"to {goal}: {reply}")
sys.exit(position == "?" or reply != "ack")
