#!/usr/bin/env python3
"""ip6_in_ip4.py - one end of an IPv6-in-IPv4 tunnel, for kernels without a sit device.

    ip6_in_ip4.py TUN-DEVICE LOCAL-IPV4 REMOTE-IPV4

Joins a TUN device to a raw socket of IP protocol 41 (RFC 4213 3). Both the IPv6 packets inside and
the IPv4 headers around them are the kernel's; this program only carries the one into the other.
"""
import fcntl
import os
import selectors
import socket
import struct
import sys

TUNSETIFF = 0x400454CA      # linux/if_tun.h
IFF_TUN_BARE = 0x1001       # IFF_TUN | IFF_NO_PI: bare IP packets
IP_MTU_DISCOVER = 10        # linux/in.h
IP_PMTUDISC_DONT = 0


def open_tun(device):
    tun = os.open("/dev/net/tun", os.O_RDWR)
    fcntl.ioctl(tun, TUNSETIFF, struct.pack("16sH22x", device.encode(), IFF_TUN_BARE))
    return tun


def open_carrier(local, remote):
    carrier = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_IPV6)
    # The tunnel's own MTU keeps packets whole; the outer header must not forbid fragments.
    carrier.setsockopt(socket.IPPROTO_IP, IP_MTU_DISCOVER, IP_PMTUDISC_DONT)
    carrier.bind((local, 0))
    carrier.connect((remote, 0))
    return carrier


def wrap_one(tun, carrier):
    packet = os.read(tun, 65535)
    if packet[0] >> 4 == 6:
        carrier.send(packet)


def unwrap_one(tun, carrier):
    datagram = carrier.recv(65535)
    header_size = (datagram[0] & 0x0F) * 4
    os.write(tun, datagram[header_size:])


def main(arguments):
    if len(arguments) != 3:
        sys.exit(__doc__)
    tun = open_tun(arguments[0])
    carrier = open_carrier(arguments[1], arguments[2])
    ways = selectors.DefaultSelector()
    ways.register(tun, selectors.EVENT_READ, wrap_one)
    ways.register(carrier, selectors.EVENT_READ, unwrap_one)
    while True:
        for ready, _ in ways.select():
            ready.data(tun, carrier)


if __name__ == "__main__":
    main(sys.argv[1:])
