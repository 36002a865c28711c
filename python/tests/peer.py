"""A client for tests in which clients of two languages talk: peer.py NAME QUERY-PORT MESSAGE-PORT

It publishes ``NAME.values`` with every kind of value, answers ``echo`` with its parameters, sends a
call on for ``relay`` (``{"to", "command", "params"}``) and answers with its answer, and sends a
text for ``tell`` (``{"to", "text"}``). What comes in is a line of JSON on its output: messages, and
the changes of ``to.NAME`` and ``to.NAME.*``. It says ``ready`` when all of that is in place."""

import asyncio
import json
import sys

import trelan

VALUES = {
    "null": None, "true": True, "list": [1, [], {}, [{"a": [None]}]], "object": {"": {"b": {}}},
    "whole": [0, -1, 2 ** 53 + 1, 2 ** 63 - 1, -2 ** 63, 2 ** 64 - 1],
    "double": [0.1, -2.5, 1e-7, 1.7976931348623157e308, 5e-324, 1e22],
    "text": ["", "\0", "\"\\/\b\f\n\r\t\x1f\x7f", "Grüße 世界 \U0001f680", "\u2028\ufeff"],
    "Gr\u00fc\u00dfe \U0001f680": "key",
}
"""Every kind of value, with the edges of numbers and of Unicode."""


def say(**values):
    print(json.dumps(values), flush=True)


async def print_changes(watch):
    async for change in watch:
        say(kind=change.kind.value, name=change.name, content=change.content, by=change.publisher)


async def main(name, query_port, message_port):
    async with trelan.connect(name, query_port=int(query_port),
                              message_port=int(message_port)) as bus:
        async def relay(call):
            return await bus.call(call.params["to"], call.params["command"], call.params["params"])

        async def tell(call):
            await bus.send(call.params["to"], call.params["text"])

        bus.serve("echo", lambda call: call.params)
        bus.serve("relay", relay)
        bus.serve("tell", tell)
        await bus.publish(f"{name}.values", VALUES)
        watch = bus.watch(f"to.{name}", f"to.{name}.*")
        await watch.whole()
        print("ready", flush=True)
        changes = asyncio.ensure_future(print_changes(watch))
        async for message in bus.messages():
            if isinstance(message, trelan.Message):
                say(kind="message", sender=message.sender, text=message.text)
        await changes


if __name__ == "__main__":
    asyncio.run(main(*sys.argv[1:]))
