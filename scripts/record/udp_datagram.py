#!/usr/bin/env python3
"""udp_datagram.py - one large UDP datagram, answered by a short one.

    udp_datagram.py serve ADDRESS PORT
    udp_datagram.py ask ADDRESS PORT BYTES

The datagram leaves as one piece; the kernel cuts it into fragments at the MTU of the way out.
"""
import socket
import sys

ANSWER_LIMIT_S = 10


def open_socket(address):
    family = socket.AF_INET6 if ":" in address else socket.AF_INET
    return socket.socket(family, socket.SOCK_DGRAM)


def serve(address, port):
    with open_socket(address) as server:
        server.bind((address, port))
        while True:
            datagram, sender = server.recvfrom(65535)
            server.sendto(b"%d bytes received" % len(datagram), sender)


def ask(address, port, size):
    with open_socket(address) as client:
        client.settimeout(ANSWER_LIMIT_S)
        client.connect((address, port))
        client.send(bytes(ord("a") + i % 26 for i in range(size)))
        answer = client.recv(65535)
    if answer != b"%d bytes received" % size:
        sys.exit(f"unexpected answer: {answer!r}")


def main(arguments):
    if len(arguments) == 3 and arguments[0] == "serve":
        serve(arguments[1], int(arguments[2]))
    elif len(arguments) == 4 and arguments[0] == "ask":
        ask(arguments[1], int(arguments[2]), int(arguments[3]))
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main(sys.argv[1:])
