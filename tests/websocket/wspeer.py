#!/usr/bin/python3
"""WebSocket peers for the channel tests, on 127.0.0.1 with a port the system picks.

Usage: wspeer.py MODE [SECONDS [CERT KEY]], or wspeer.py client URI BYTES. With a certificate and key it serves wss. Prints the port on one line once it listens and serves
until it is terminated. Modes:
  echo      binary echo of every message (pings every SECONDS when SECONDS > 0)
  headers   sends back "<Sec-WebSocket-Key>|<User-Agent>" of the upgrade request
  ping      pings the client, then reports "pong seen" once the pong came back
  close     echoes one message, then starts the close handshake (1000, "bye")
  drop      echoes one message, then drops the connection (no close frame, no close_notify)
  reset     echoes messages until SECONDS bytes (a count here) came in, then resets the
            connection (SO_LINGER 0)
  hangup    answers the upgrade by hand, then closes at once
  deaf      answers the upgrade by hand, then reads and ignores everything
  frames    a text message, a binary message in three fragments, then "|end"
  reject    refuses the upgrade with 404 Not Found
  cut       reads the upgrade request, sends half a status line and closes
  silent    reads the upgrade request, never answers, closes after SECONDS
  flood     answers the upgrade by hand, then sends 125-byte pings without reading
  pings     binary echo that counts the pings it answers; a message "count?" gets the count
  pingclient URI: connects (wss without checking the certificate), answers pings and prints
            "ping N" for each, then waits until the server ends the connection and prints "closed"
  client    connects to URI (wss without checking the certificate), sends BYTES of a pattern in
            messages of mixed sizes while reading the echo, prints "ok BYTES" when the echo is
            equal, then closes with 1000 and prints "closed CODE"
"""
import asyncio
import os
import socket
import ssl
import threading
import time
import sys
from http import HTTPStatus

import websockets
from websockets.legacy.client import WebSocketClientProtocol
from websockets.legacy.server import WebSocketServerProtocol

MODE = sys.argv[1]
CLIENT = MODE in ("client", "pingclient")
SECONDS = float(sys.argv[2]) if len(sys.argv) > 2 and not CLIENT else 0.0
TLS = None
if len(sys.argv) > 4 and not CLIENT:
    TLS = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    TLS.load_cert_chain(sys.argv[3], sys.argv[4])

# The answer to the key that a client with the null random generator always sends.
ACCEPT_OF_ZERO_KEY = "ICX+Yqv66kxgM0FcWaLWlFLwTAI="


async def drain(ws):
    async for _ in ws:
        pass


async def echo(ws, path):
    async for message in ws:
        await ws.send(message)


def counting(base, each=None):
    """The protocol class `base` counting the pings it answers (the library answers them)."""
    class Counting(base):
        pings_answered = 0

        async def pong(self, data=b""):
            self.pings_answered += 1
            if each:
                each(self.pings_answered)
            await super().pong(data)
    return Counting


async def pings(ws, path):
    async for message in ws:
        await ws.send(str(ws.pings_answered).encode() if message == b"count?" else message)


async def headers(ws, path):
    text = ws.request_headers["Sec-WebSocket-Key"] + "|" + ws.request_headers["User-Agent"]
    await ws.send(text.encode())
    await drain(ws)


async def ping(ws, path):
    pong = await ws.ping(b"are you there")
    await asyncio.wait_for(pong, 10)
    await ws.send(b"pong seen")
    await drain(ws)


async def close(ws, path):
    await ws.send(await ws.recv())
    await ws.close(1000, "bye")


async def drop(ws, path):
    await ws.send(await ws.recv())
    await asyncio.sleep(0.2)
    ws.transport.abort()


async def reset(ws, path):
    received = 0
    async for message in ws:
        received += len(message)
        if received >= SECONDS:
            sock = ws.transport.get_extra_info("socket")
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, bytes(8))
            ws.transport.abort()
            return
        await ws.send(message)


async def frames(ws, path):
    await ws.send("text is dropped")
    await ws.send([b"frag", b"men", b"ted"])
    await ws.send(b"|end")
    await drain(ws)


def refuse(path, request_headers):
    return HTTPStatus.NOT_FOUND, [], b"nope\n"


async def read_request(reader):
    await reader.readuntil(b"\r\n\r\n")


async def cut(reader, writer):
    await read_request(reader)
    writer.write(b"HTTP/1.1 10")
    await writer.drain()
    writer.close()


async def silent(reader, writer):
    await read_request(reader)
    await asyncio.sleep(SECONDS)
    writer.close()


def answer_upgrade(conn):
    """Reads the upgrade request and answers 101 by hand; False when the client left first."""
    conn.settimeout(30)
    request = b""
    try:
        while b"\r\n\r\n" not in request:
            chunk = conn.recv(4096)
            if not chunk:
                return False
            request += chunk
        conn.sendall(("HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                      "Sec-WebSocket-Accept: " + ACCEPT_OF_ZERO_KEY + "\r\n\r\n").encode())
    except OSError:
        return False
    return True


def flood_connection(conn):
    if not answer_upgrade(conn):
        return
    frame = bytes([0x89, 125]) + b"p" * 125
    # Time for the client to reach the reactor before the flood ends it.
    time.sleep(0.5)
    try:
        for _ in range(20000):
            conn.sendall(frame)
    except OSError:
        pass


def deaf_connection(conn):
    # Reads and ignores everything: a close frame gets no answer.
    try:
        while conn.recv(4096):
            pass
    except OSError:
        pass


def serve_by_hand(each, receive_buffer=None):
    listener = socket.socket()
    if receive_buffer:
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    listener.bind(("127.0.0.1", 0))
    listener.listen(64)
    print(listener.getsockname()[1], flush=True)
    while True:
        conn, _ = listener.accept()
        each(conn)
        conn.close()


def client_tls(uri):
    if not uri.startswith("wss:"):
        return None
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    return context


async def pingclient(uri):
    protocol = counting(WebSocketClientProtocol, lambda n: print("ping", n, flush=True))
    async with websockets.connect(uri, ssl=client_tls(uri), ping_interval=None, create_protocol=protocol) as ws:
        print("open", flush=True)
        try:
            await drain(ws)
        except websockets.ConnectionClosed:
            pass
    print("closed", flush=True)


async def client(uri, count):
    context = client_tls(uri)
    data = bytes((i * 7 + (i >> 9)) & 255 for i in range(count))
    sizes = [1, 125, 126, 65535, 65536, 70000, 3]
    async with websockets.connect(uri, ssl=context, max_size=None, ping_interval=None) as ws:
        async def sender():
            sent = 0
            index = 0
            while sent < count:
                n = min(sizes[index % len(sizes)], count - sent)
                await ws.send(data[sent:sent + n])
                sent += n
                index += 1

        task = asyncio.create_task(sender())
        received = bytearray()
        while len(received) < count:
            received += await asyncio.wait_for(ws.recv(), 10)
        await task
        print("ok" if bytes(received) == data else "mismatch", len(received), flush=True)
        await asyncio.wait_for(ws.close(1000, "done"), 10)
        print("closed", ws.close_code, flush=True)


async def main():
    handlers = {"echo": echo, "headers": headers, "ping": ping, "close": close, "frames": frames, "drop": drop,
                "reject": echo, "reset": reset, "pings": pings}
    if MODE in handlers:
        extra = {"process_request": refuse} if MODE == "reject" else {}
        if MODE == "pings":
            extra = {"create_protocol": counting(WebSocketServerProtocol)}
        interval = SECONDS if MODE == "echo" and SECONDS > 0 else None
        server = await websockets.serve(handlers[MODE], "127.0.0.1", 0, max_size=None, ping_interval=interval,
                                        ping_timeout=None, ssl=TLS, **extra)
    else:
        server = await asyncio.start_server({"cut": cut, "silent": silent}[MODE], "127.0.0.1", 0)
    print(server.sockets[0].getsockname()[1], flush=True)
    await asyncio.Future()


def exit_with_parent():
    parent = os.getppid()
    while os.getppid() == parent:
        time.sleep(0.5)
    os._exit(0)


if __name__ == "__main__":
    # A test that dies without stopping its peer must not leave it behind.
    threading.Thread(target=exit_with_parent, daemon=True).start()
    if MODE == "flood":
        # Small buffers on both sides, so that the client's pongs back up quickly.
        serve_by_hand(flood_connection, receive_buffer=4096)
    elif MODE == "deaf":
        serve_by_hand(lambda conn: answer_upgrade(conn) and deaf_connection(conn))
    elif MODE == "hangup":
        serve_by_hand(answer_upgrade)
    elif MODE == "client":
        asyncio.run(client(sys.argv[2], int(sys.argv[3])))
    elif MODE == "pingclient":
        asyncio.run(pingclient(sys.argv[2]))
    else:
        asyncio.run(main())
