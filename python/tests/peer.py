"""A client for tests in which clients of two languages talk: peer.py NAME QUERY-PORT MESSAGE-PORT

It does what its commands ask for. Values come and go as JSON texts in ASCII, so that what is sent
says nothing but what the test has written, and what has come shows every digit and character. A
line of JSON on its output tells each message, and each change of ``to.NAME.*``. It says ``ready``
when all of that is in place."""

import asyncio
import json
import sys

import trelan


def text_of(value):
    return json.dumps(value, separators=(",", ":"), sort_keys=True)


def say(**values):
    print(json.dumps(values), flush=True)


async def print_changes(watch):
    async for change in watch:
        say(kind=change.kind.value, name=change.name, text=text_of(change.content))


def tells(function):
    """A served function that answers with a text, or with the exception that it met."""
    async def served(call):
        try:
            return {"text": text_of(await function(**call.params))}
        except trelan.TrelanError as error:
            return {"raised": f"{type(error).__name__}: {error}"}
    return served


async def main(name, query_port, message_port):
    async with trelan.connect(name, query_port=int(query_port),
                              message_port=int(message_port)) as bus:
        async def publish(name, text):
            await bus.publish(name, json.loads(text))

        async def get(name):
            return (await bus.get(name)).content

        async def rm(name):
            await bus.rm(name)

        async def call(to, command, text):
            return await bus.call(to, command, json.loads(text), timeout=30)

        async def send(to, text):
            await bus.send(to, json.loads(text))

        def fail(call):
            raise ValueError(call.params["why"])

        for function in (publish, get, rm, call, send):
            bus.serve(function.__name__, tells(function))
        bus.serve("echo", lambda call: call.params)
        bus.serve("text", lambda call: {"text": text_of(call.params)})
        bus.serve("fail", fail)
        watch = bus.watch(f"to.{name}.*")
        await watch.whole()
        print("ready", flush=True)
        changes = asyncio.ensure_future(print_changes(watch))
        async for message in bus.messages():
            if isinstance(message, trelan.Message):
                say(kind="message", name=message.sender, text=text_of(message.text))
            else:
                await bus.answer(message, {"error": f"nobody serves {message.name!r}"})
        await changes


if __name__ == "__main__":
    asyncio.run(main(*sys.argv[1:]))
