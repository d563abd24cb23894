#!/usr/bin/python3
"""A client made with libvirt's Python binding, which calls what a test tells it to.

    binding_client.py URI DOMAIN DESCRIPTOR

The descriptor is a listening socket. Over the one connection that it takes, each line is a JSON
array: the name of a method of the domain and its arguments, where a string that is the name of one
of libvirt's constants stands for its value. "agent" takes a request, which goes to the agent as it
stands, and the seconds to wait for its answer; "event" waits for the next news of the agent. Each
answer is a line: {"result": ...}, or {"code": ..., "message": ...} of libvirt's error.
"""
import json
import queue
import socket
import sys
import threading

import libvirt
import libvirt_qemu


def valueOf(argument):
    if isinstance(argument, str) and argument.startswith("VIR_"):
        return getattr(libvirt, argument)
    return argument


def callMethod(domain, events, name, *arguments):
    if name == "agent":
        return json.loads(libvirt_qemu.qemuAgentCommand(domain, *arguments, 0))
    if name == "event":
        return events.get(timeout=60)
    return getattr(domain, name)(*map(valueOf, arguments))


def answerOf(*call):
    try:
        return {"result": callMethod(*call)}
    except libvirt.libvirtError as error:
        return {"code": error.get_error_code(), "message": error.get_error_message()}


def runEvents():
    while True:
        libvirt.virEventRunDefaultImpl()


def main(uri, name, descriptor):
    libvirt.registerErrorHandler(lambda *_: None, None)
    libvirt.virEventRegisterDefaultImpl()
    threading.Thread(target=runEvents, daemon=True).start()
    connection = libvirt.open(uri)
    domain = connection.lookupByName(name)
    events = queue.Queue()
    connection.domainEventRegisterAny(
        domain, libvirt.VIR_DOMAIN_EVENT_ID_AGENT_LIFECYCLE,
        lambda _connection, _domain, state, reason, _: events.put([state, reason]), None)
    test, _ = socket.socket(fileno=int(descriptor)).accept()
    with test.makefile("rw", encoding="utf-8", newline="\n") as stream:
        for line in stream:
            stream.write(json.dumps(answerOf(domain, events, *json.loads(line))) + "\n")
            stream.flush()


main(*sys.argv[1:])
