#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""A UDP relay that holds each datagram back, for measuring what a long way does to TFTP where the system's own delay
(tc netem) is not there: not every kernel has it, and it takes root.

  delay_relay.py HOST:PORT MILLISECONDS     prints the port it listens on; ends with its standard input

One transfer after another: what clients send goes to the server that answered last, a request to HOST:PORT.
"""
import heapq
import select
import socket
import sys
import time


def new_socket():
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
    sock.bind(("127.0.0.1", 0))
    sock.setblocking(False)
    return sock


def datagrams(sock):
    try:
        while True:
            yield sock.recvfrom(65536)
    except BlockingIOError:
        return


def main(server, delay_ms):
    host, _, port = server.rpartition(":")
    server, delay_s = (host, int(port)), float(delay_ms) / 1000
    near, far = new_socket(), None
    print(near.getsockname()[1], flush=True)
    client, transfer, queue, number = None, server, [], 0
    while True:
        wait = max(0.0, queue[0][0] - time.monotonic()) if queue else None
        ready = select.select([sock for sock in (near, far, sys.stdin) if sock], [], [], wait)[0]
        if sys.stdin in ready:
            return
        due = time.monotonic() + delay_s
        for datagram, sender in datagrams(near) if near in ready else ():
            if sender != client:  # another transfer, of which the server sees another port
                client, transfer, far, queue = sender, server, new_socket(), []
            number += 1
            heapq.heappush(queue, (due, number, True, datagram))
        for datagram, transfer in datagrams(far) if far in ready else ():
            number += 1
            heapq.heappush(queue, (due, number, False, datagram))
        while queue and queue[0][0] <= time.monotonic():
            _, _, goes_far, datagram = heapq.heappop(queue)
            if goes_far:
                far.sendto(datagram, transfer)
            else:
                near.sendto(datagram, client)


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    main(*sys.argv[1:])
