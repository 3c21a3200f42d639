#!/usr/bin/env python3
"""tcp_abort.py - a TCP connection that one end aborts after data went both ways.

    tcp_abort.py serve ADDRESS PORT
    tcp_abort.py connect ADDRESS PORT client|server     the end that aborts

The last line of the client says who aborts. Each end has read everything before it happens, so
that the RST is the only thing left to send.
"""
import socket
import struct
import sys

ANSWER_LIMIT_S = 10


def abort(connection):
    # Lingering for zero seconds makes close() send a RST in place of a FIN.
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def wait_for_abort(connection):
    try:
        connection.recv(1)
    except ConnectionResetError:
        return
    sys.exit("the other end did not abort")


def talk_to_client(connection):
    connection.settimeout(ANSWER_LIMIT_S)
    lines = connection.makefile("rb")
    connection.sendall(b"welcome, " + lines.readline())
    who = lines.readline().strip()
    lines.close()
    if who == b"server":
        abort(connection)
    else:
        connection.sendall(b"go ahead\n")
        wait_for_abort(connection)


def serve(address, port):
    with socket.create_server((address, port)) as listener:
        while True:
            connection, _ = listener.accept()
            with connection:
                talk_to_client(connection)


def connect(address, port, who):
    with socket.create_connection((address, port), timeout=ANSWER_LIMIT_S) as connection:
        lines = connection.makefile("rb")
        connection.sendall(b"stranger\n")
        if lines.readline() != b"welcome, stranger\n":
            sys.exit("unexpected answer")
        connection.sendall(who.encode() + b"\n")
        if who == "client":
            lines.readline()
            lines.close()
            abort(connection)
        else:
            wait_for_abort(connection)


def main(arguments):
    if len(arguments) == 3 and arguments[0] == "serve":
        serve(arguments[1], int(arguments[2]))
    elif len(arguments) == 4 and arguments[0] == "connect" and arguments[3] in ("client", "server"):
        connect(arguments[1], int(arguments[2]), arguments[3])
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main(sys.argv[1:])
