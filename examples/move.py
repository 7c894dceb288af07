#!/usr/bin/env python3
"""Prints the position of gripper 9 and requests another one, if the gripper is active.

    move.py HOST POSITION

It does not wait for the end of the movement. grip.py does.
"""
import socket
import sys

host, goal = sys.argv[1:]
with socket.create_connection((host, 63352), timeout=5) as daemon:
    replies = daemon.makefile("rb")
    # The reply to a GET is a line. "?" is the value of a gripper that is not found.
    daemon.sendall(b"GET STA\nGET POS\n")
    status, position = (replies.readline().decode().split()[1] for _ in range(2))
    print("from", position)
    if status != "3":
        sys.exit("the gripper is not active")
    # The reply to a SET has three characters and no line ending.
    daemon.sendall(f"SET POS {goal} SPE 255 FOR 100 GTO 1\n".encode())
    reply = replies.read(3).decode()
    print(f"to {goal}: {reply}")
sys.exit(reply != "ack")
