#!/usr/bin/env python3
"""Says where gripper 9 is and moves it: move.py HOST POSITION. It has to be active."""
import socket
import sys

host, goal = sys.argv[1:]
with socket.create_connection((host, 63352), timeout=5) as daemon:
    replies = daemon.makefile("rb")
    # A GET is answered with a line.
    daemon.sendall(b"GET POS\n")
    position = replies.readline().decode().split()[1]
    print("from", position)
    # A SET is answered with three characters and no line ending.
    daemon.sendall(f"SET POS {goal} SPE 255 FOR 100 GTO 1\n".encode())
    reply = replies.read(3).decode()
    print(f"to {goal}: {reply}")
sys.exit(position == "?" or reply != "ack")
