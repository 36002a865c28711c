"""The client against trelanbusd, and against peers that do what no bus should."""

import asyncio
import base64
import contextlib
import itertools
import json
import logging
import os
import struct
import unittest
import zlib
from unittest import mock

import trelan
from support import LIMIT, BusTest, Peer
from trelan import policy
from trelan.values import command_text

VALUES = {
    "null": None, "true": True, "list": [1, [], {}, [{"a": [None]}]], "object": {"": {"b": {}}},
    "whole": [0, -1, 2 ** 53 + 1, 2 ** 63 - 1, -2 ** 63, 2 ** 64 - 1],
    "double": [0.1, -2.5, 1e-7, 1.7976931348623157e308, 5e-324, 1e22],
    "text": ["", "\0", "\"\\/\b\f\n\r\t\x1f\x7f", "Grüße 世界 \U0001f680", "\u2028\ufeff"],
    "Gr\u00fc\u00dfe \U0001f680": "key",
}
"""Every kind of value, with the edges of numbers and of Unicode."""


class Operations(BusTest):
    async def test_every_value_travels(self):
        async with self.connect("a") as a, self.connect() as b:
            await a.publish("all.values", VALUES, permanent=True)
            self.assertEqual((await b.get("all.values")).content, VALUES)
            self.assertEqual(await self.next(b.watch("all.*")), ("now", "all.values", VALUES))
            a.serve("echo", lambda call: call.params)
            self.assertEqual(await b.call("a", "echo", VALUES), VALUES)
            await b.send("a", json.dumps(VALUES))
            message = await self.within(a.messages().__anext__())
            self.assertEqual((message.sender, json.loads(message.text)), (b.name, VALUES))
            self.assertEqual(json.loads(await self.control("--json", "get", "all.values"))
                             ["content"]["text"], VALUES["text"])

    async def test_loads_and_removes(self):
        async with self.connect() as bus:
            for name in ("a.x", "a.y", "b.x"):
                await bus.publish(name, {"of": name})
            loaded = await bus.ls("a.*")
            self.assertEqual({name: one.content for name, one in loaded.items()},
                             {"a.x": {"of": "a.x"}, "a.y": {"of": "a.y"}})
            self.assertEqual(loaded["a.x"].publisher, bus.name)
            await bus.rm("a.x", "never.there")
            with self.assertRaises(trelan.Refused) as caught:
                await bus.get("a.x")
            self.assertEqual(caught.exception.code, 2)
            self.assertIn("a.x", str(caught.exception))

    async def test_refusals(self):
        async with self.connect() as bus:
            for work, code in ((bus.publish("a..b", {}), 2), (bus.get("none"), 2),
                               (bus.send("nobody", "text"), 3), (bus.call("nobody", "x"), 3)):
                with self.assertRaises(trelan.Refused) as caught:
                    await self.within(work)
                self.assertEqual(caught.exception.code, code)
                self.assertEqual(isinstance(caught.exception, trelan.NobodyThere), code == 3)
            with self.assertRaises(trelan.Refused):
                await self.next(bus.watch("a" * 2000))
            for content in ({"n": float("nan")}, {"o": 1e400}):
                with self.assertRaises(ValueError):
                    await bus.publish("a.b", content)
            with self.assertRaises(ValueError):
                await bus.publish("a.b", {}, stored=False, permanent=True)
            with self.assertRaises(trelan.Refused):
                await trelan.connect("\n", **self.daemon.ports).__aenter__()

    async def test_many_requests_at_once(self):
        async with self.connect() as bus:
            await self.within(asyncio.gather(*(
                bus.publish(f"many.{n}", {"n": n}) for n in range(500))))
            answers = await self.within(asyncio.gather(*(bus.get(f"many.{n}") for n in range(500))))
            self.assertEqual([one.content["n"] for one in answers], list(range(500)))


class Large(BusTest):
    OPTIONS = ("--max-frame", "100000")

    async def test_too_large_costs_one_connection(self):
        noise = {"text": "".join(map(str, range(60000)))}
        async with self.connect("a", patience=LIMIT) as a, self.connect() as b:
            with self.assertRaises(trelan.Refused) as caught:
                await a.publish("too.large", noise)
            self.assertEqual(caught.exception.code, 1)
            await a.publish("small", {})  # on the next connection
            a.serve("noise", lambda call: noise)
            with self.assertRaises(trelan.AnswerError) as answer:
                await b.call("a", "noise", timeout=LIMIT)
            self.assertIn("too large", str(answer.exception))


class Commands(BusTest):
    async def test_answers(self):
        async def slow(call):
            await asyncio.Event().wait()

        def fails(call):
            raise ValueError("no such list")

        def count(call):
            return {"n": len(call.params["list"]), "for": call.sender}

        async with self.connect("server") as server, self.connect("caller") as caller:
            server.serve("count", count)
            server.serve("slow", slow, timeout=0.01)
            server.serve("never", slow)
            server.serve("fails", fails)
            server.serve("text", lambda call: "text")
            server.serve("nan", lambda call: {"n": float("nan")})
            self.assertEqual(await caller.call("server", "count", {"list": [1, 2, 3]}),
                             {"n": 3, "for": "caller"})
            for command, wanted in (("fails", "no such list"), ("count", "KeyError('list')"),
                                    ("slow", "taken longer"), ("text", "no parameters but str"),
                                    ("nan", "no JSON"), ("other", "nobody serves 'other'")):
                with self.subTest(command), self.assertRaises(trelan.AnswerError) as caught:
                    await caller.call("server", command)
                self.assertIn(wanted, str(caught.exception))
            with self.assertRaises(trelan.TimedOut):
                await caller.call("server", "never", timeout=0.05)
            answered = await self.control("--json", "call", "server", "count", "list=[1]")
            self.assertEqual(json.loads(answered)["parameters"]["n"], 1)

    async def test_only_the_called_one_answers(self):
        async with self.connect("server") as server, self.connect("thief") as thief, \
                self.connect() as caller:
            inbox = server.messages()
            call = asyncio.ensure_future(caller.call("server", "ask", timeout=LIMIT))
            asked = await self.within(inbox.__anext__())
            self.assertTrue(asked.needs_answer)
            text = command_text("ask", {"from": "thief"}, asked.uid)
            await thief.send(caller.name, text)
            await server.answer(asked, {"from": "server"})
            self.assertEqual(await self.within(call), {"from": "server"})
            await server.send(caller.name, text)  # too late, and dropped
            await server.send(caller.name, command_text("ask", [1], "unknown"))
            again = asyncio.ensure_future(caller.call("server", "ask", timeout=LIMIT))
            asked = await self.within(inbox.__anext__())
            await server.send(caller.name, command_text("ask", [1], asked.uid))
            with self.assertRaises(trelan.AnswerError):  # no object
                await self.within(again)

    async def test_crowd_of_calls(self):
        async def echo(call):
            await asyncio.sleep(0)
            return call.params

        async with self.connect("server") as server, self.connect() as caller:
            server.serve("echo", echo)
            answers = await self.within(asyncio.gather(*(
                caller.call("server", "echo", {"n": n}, timeout=LIMIT) for n in range(60))))
            self.assertEqual([answer["n"] for answer in answers], list(range(60)))


class Watching(BusTest):
    async def test_values_changes_events_and_removals(self):
        async with self.connect("a") as bus:
            await bus.publish("room.kitchen", {"n": 1})
            async with bus.watch("room.*", "room.+") as watch:
                await self.within(watch.whole())
                self.assertEqual(await self.next(watch), ("now", "room.kitchen", {"n": 1}))
                await bus.publish("room.kitchen", {"n": 2})
                await bus.publish("room.door", {}, stored=False)
                await bus.rm("room.kitchen", "never.there")
                self.assertEqual(await self.next(watch), ("changed", "room.kitchen", {"n": 2}))
                self.assertEqual(await self.next(watch), ("event", "room.door", {}))
                self.assertEqual(await self.next(watch), ("removed", "room.kitchen", {}))

    async def test_second_watch_repeats_nothing_for_the_first(self):
        async with self.connect() as bus:
            await bus.publish("a.b", {"n": 1})
            first = bus.watch("a.*")
            self.assertEqual(await self.next(first), ("now", "a.b", {"n": 1}))
            second = bus.watch("a.*")
            await self.within(second.whole())
            self.assertEqual(await self.next(second), ("now", "a.b", {"n": 1}))
            await bus.publish("a.b", {"n": 2})
            for watch in (first, second):
                self.assertEqual(await self.next(watch), ("changed", "a.b", {"n": 2}))

    async def test_unsubscribes_what_nobody_watches(self):
        async with self.connect("watcher") as bus, self.connect() as other:
            async def subscriptions():
                listed = map(json.loads, (await self.control("--json", "clients")).splitlines())
                return {one["name"]: one["subscriptions"] for one in listed}["watcher"]

            async for _ in self._published(bus, other):
                break
            while await subscriptions() != 0:
                pass

    async def _published(self, bus, other):
        await other.publish("a.b", {})
        async for change in bus.watch("a.*", "b.*"):
            yield change

    async def test_slow_reader(self):
        async with self.connect() as bus, self.connect("b") as other:
            watch = bus.watch("a.*", most_events=10)
            await self.within(watch.whole())
            for number in range(600):
                await other.publish("a.b", {"n": number})
                await other.publish("a.event", {"n": number}, stored=False)
            await other.publish("a.last", {})
            taken = {}
            while "a.last" not in taken:
                _, name, content = await self.next(watch)
                self.assertGreater(content.get("n", 0), taken.get(name, {}).get("n", -1))
                taken[name] = content
            self.assertGreater(watch.dropped, 300)
            self.assertEqual(taken["a.b"], {"n": 599})


class Recovery(BusTest):
    async def test_whole_after_the_bus_was_killed(self):
        async with self.connect("watcher", patience=LIMIT) as bus:
            await bus.publish("a.permanent", {"n": 1}, permanent=True)
            await bus.publish("a.memory", {"n": 1})
            watch = bus.watch("a.*")
            seen = [await self.next(watch), await self.next(watch)]
            self.assertEqual(sorted(seen, key=str), [("now", "a.memory", {"n": 1}),
                                                     ("now", "a.permanent", {"n": 1})])
            for number in range(2, 5):
                self.daemon.kill()
                self.daemon.start()
                self.assertEqual(await self.next(watch), ("removed", "a.memory", {}))
                await self.within(watch.whole())
                await bus.publish("a.memory", {"n": number})
                self.assertEqual(await self.next(watch), ("changed", "a.memory", {"n": number}))

    async def test_tells_what_differs_after_a_cut(self):
        relays, ports = await self.relayed()
        async with self.connect("watcher", **ports) as bus, self.connect("other") as other:
            for name in ("a.same", "a.changed", "a.gone"):
                await other.publish(name, {"n": 1})
            watch = bus.watch("a.same", "a.*")
            seen = {(await self.next(watch))[:2] for _ in range(3)}
            self.assertEqual(seen, {("now", "a.same"), ("now", "a.changed"), ("now", "a.gone")})
            await self.within(watch.whole())
            for relay in relays:
                relay.cut()
            while bus.state.status is not trelan.Status.AWAY:
                await asyncio.sleep(0)
            await other.publish("a.changed", {"n": 2})
            await other.publish("a.new", {"n": 1})
            await other.rm("a.gone")
            for relay in relays:
                await relay.start()
            told = [await self.next(watch) for _ in range(3)]
            self.assertEqual(sorted(told, key=str), [
                ("now", "a.changed", {"n": 2}), ("now", "a.new", {"n": 1}),
                ("removed", "a.gone", {})])
            await self.within(watch.whole())
            await other.publish("a.same", {"n": 2})
            self.assertEqual(await self.next(watch), ("changed", "a.same", {"n": 2}))

    async def test_everybody_comes_back(self):
        """The bus is killed under three publishers and watchers; all end with what is stored."""
        running, published, latest = True, asyncio.Event(), [{}, {}, {}]

        async def publish(bus):
            for number in itertools.count():
                if not running:
                    return
                with contextlib.suppress(trelan.NotConnected):
                    if number % 7 == 6:
                        await bus.rm(f"a.{bus.name}.{number % 5}")
                    else:
                        await bus.publish(f"a.{bus.name}.{number % 5}", {"n": number},
                                          permanent=True)
                    published.set()
                await asyncio.sleep(0)

        async def watch(bus, values):
            async for change in bus.watch("a.*"):
                if change.removed:
                    del values[change.name]
                else:
                    self.assertGreaterEqual(change.content["n"],
                                            values.get(change.name, {"n": 0})["n"])
                    values[change.name] = change.content

        async with contextlib.AsyncExitStack() as stack:
            buses = [await stack.enter_async_context(self.connect(name)) for name in "xyz"]
            watching = [asyncio.ensure_future(watch(*pair)) for pair in zip(buses, latest)]
            publishing = [asyncio.ensure_future(publish(bus)) for bus in buses]
            for _ in range(int(os.environ.get("TRELAN_PYTHON_ROUNDS", "5"))):
                for _ in range(20):
                    published.clear()
                    await self.within(published.wait())
                self.daemon.kill()
                self.daemon.start()
            running = False
            await self.within(asyncio.gather(*publishing))
            for bus in buses:
                await bus.connected(LIMIT)
            stored = {name: one.content for name, one in (await buses[0].ls("a.*")).items()}
            self.assertTrue(stored)
            while any(values != stored for values in latest):
                await asyncio.wait(watching, timeout=0.01)
                self.assertFalse(any(task.done() for task in watching))
        await self.within(asyncio.gather(*watching))

    async def test_more_wildcards_than_a_bus_answers_at_once(self):
        async with self.connect() as bus:
            await bus.publish("a.b", {})
            watch = bus.watch(*(f"w{number}.*" for number in range(500)), "a.*")
            await self.within(watch.whole())
            self.assertEqual(await self.next(watch), ("now", "a.b", {}))

    async def test_says_what_it_is_about(self):
        states = asyncio.Queue()
        async with self.connect(on_state=states.put_nowait) as bus:
            waits = asyncio.ensure_future(bus.call(bus.name, "x", timeout=0.5))
            await asyncio.sleep(0)
            self.daemon.kill()
            self.assertEqual((await self.within(states.get())).status, trelan.Status.CONNECTED)
            away = await self.within(states.get())
            self.assertEqual((away.status, away.reason), (trelan.Status.AWAY, trelan.Reason.NO_BUS))
            with self.assertRaises(trelan.TrelanError):
                await self.within(waits)
            with self.assertRaises(trelan.NotConnected):
                await bus.get("a")
            self.daemon.start()
            self.assertEqual((await self.within(states.get())).status, trelan.Status.CONNECTED)
        self.assertEqual(bus.state.status, trelan.Status.CLOSED)
        with self.assertRaises(trelan.NotConnected):
            await bus.get("a")

    @mock.patch.object(policy.Backoff, "FIRST_TAKEN", 1.0)
    async def test_name_taken(self):
        states = asyncio.Queue()
        async with self.connect("twin", on_state=states.put_nowait) as first:
            await self.within(states.get())
            async with self.connect("twin") as second:
                taken = await self.within(states.get())
                self.assertEqual(taken.reason, trelan.Reason.NAME_TAKEN)
                self.assertRegex(taken.text, r"taken over by 127\.0\.0\.1:\d+")
                self.assertEqual(second.state.status, trelan.Status.CONNECTED)
            await self.within(first.connected(LIMIT))  # when its pause is over

    async def test_swapped_ports(self):
        swapped = {"query_port": self.daemon.ports["message_port"],
                   "message_port": self.daemon.ports["query_port"]}
        with self.assertRaises(trelan.WrongPort):
            await trelan.connect(**swapped).__aenter__()


class OlderBus(BusTest):
    async def test_does_without_features(self):
        _, ports = await self.relayed(ignores=True)
        async with self.connect(**ports) as bus:
            self.assertIn("told", bus.missing)
            await bus.publish("a.kept", {"n": 1}, permanent=True)
            await bus.publish("a.lost", {"n": 1})
            watch = bus.watch("a.*")
            await self.within(watch.whole())
            loaded = [await self.next(watch), await self.next(watch)]
            self.assertEqual(loaded, [("now", "a.kept", {"n": 1}), ("now", "a.lost", {"n": 1})])
            await bus.publish("a.kept", {"n": 2}, permanent=True)
            await bus.publish("a.event", {}, stored=False)
            self.assertEqual(await self.next(watch), ("changed", "a.kept", {"n": 2}))
            self.assertEqual(await self.next(watch), ("changed", "a.event", {}))
            self.daemon.kill()
            self.daemon.start()
            self.assertEqual(await self.next(watch), ("removed", "a.lost", {}))

    async def test_asks_again_without_the_key(self):
        relays, ports = await self.relayed(refuses=True)
        async with self.connect(**ports) as bus:
            await bus.publish("a.b", {"n": 1})
            self.assertEqual((await bus.get("a.b")).content, {"n": 1})
        self.assertEqual([relay.refused for relay in relays], [1, 1])


def accepted(envelope, **data):
    return {"operation": envelope["operation"], "data": data, "result": {"code": 0}}


def delivery(text, uid, sender="s"):
    return {"operation": "sendMessage", "data": {
        "s": sender, "r": "me", "msg": text, "uid": uid, "dt": "1", "ops": 0}}


class BadPeers(BusTest):
    def setUp(self):
        logging.disable(logging.CRITICAL)
        self.addCleanup(logging.disable, logging.NOTSET)

    async def bus(self, query, message):
        peers = [Peer(query), Peer(message)]
        ports = [await peer.start() for peer in peers]
        for peer in peers:
            self.addCleanup(peer.end)
        bus = trelan.connect("me", query_port=ports[0], message_port=ports[1], timeout=LIMIT)
        return bus, peers

    async def test_what_comes_twice_is_acknowledged_twice(self):
        texts = [delivery("one", "1"), delivery("one", "1"), delivery("two", "2"),
                 delivery("one", "1", "other"), {"operation": "sendMessage", "data": 7},
                 delivery(5, "3"), delivery("{" * 5000, "4"), delivery("last", "5")]
        bus, peers = await self.bus(
            lambda asked: [accepted(asked)],
            lambda asked: [accepted(asked), *texts] if asked["operation"] == "handshake" else [])
        async with bus:
            inbox = bus.messages()
            heard = [(await self.within(inbox.__anext__())).text for _ in range(5)]
            self.assertEqual(heard, ["one", "two", "one", "{" * 5000, "last"])
            await peers[1].asked_for(lambda reply: reply["data"].get("uid") == "5")
            self.assertEqual([reply["data"]["uid"] for reply in peers[1].asked[1:]],
                             ["1", "1", "2", "1", "3", "4", "5"])

    async def test_answers_of_another_kind(self):
        rows = {"other operation": {"operation": "rm", "data": {}, "result": {"code": 0}},
                "no code": {"operation": "loadObject", "data": {}, "result": {}},
                "no object": {"operation": "loadObject", "data": [], "result": {"code": 0}},
                "no name": {"operation": "loadObject", "data": {"cnt": {}}, "result": {"code": 0}},
                "the end": None}
        for name, answer in rows.items():
            with self.subTest(name):
                bus, _ = await self.bus(
                    lambda asked, answer=answer: [
                        accepted(asked) if asked["operation"] == "handshake" else answer],
                    lambda asked: [accepted(asked)])
                async with bus:
                    with self.assertRaises((trelan.ProtocolError, trelan.NotConnected)):
                        await self.within(bus.get("a"))

    async def test_answer_that_cannot_be_read_costs_itself(self):
        deep = b'{"operation":"loadObject","data":' + b'{"a":' * 5000 + b"1" + b"}" * 5001
        payload = base64.b64encode(struct.pack(">I", len(deep)) + zlib.compress(deep))
        answers = {"deep": b"[-REPLY-]\r\n%d\r\n%s" % (len(payload), payload),
                   "plain": {"operation": "loadObject", "data": {"nm": "plain"},
                             "result": {"code": 0}}}
        bus, peers = await self.bus(
            lambda asked: [answers.get(asked["data"].get("nm")) or accepted(asked)],
            lambda asked: [accepted(asked)])
        async with bus:
            with self.assertRaises(trelan.ProtocolError):
                await self.within(bus.get("deep"))
            self.assertEqual((await self.within(bus.get("plain"))).name, "plain")
            self.assertEqual([asked["operation"] for asked in peers[0].asked],
                             ["handshake", "loadObject", "loadObject"])

    async def test_marker_that_nobody_asked_for(self):
        said = [delivery('{"__reason__":"told","__sub__":"a.*"}', "1", "me"),
                delivery('{"__reason__":"removed","__name__":"a.b"}', "2"),
                delivery('{"__reason__":"sub","__name__":"a.b","__context__":{"n":1}}', "3")]
        bus, _ = await self.bus(
            lambda asked: [accepted(asked, features=["now", "told", "removals", "unknown"])],
            lambda asked: [accepted(asked), *said] if asked["operation"] == "handshake" else [])
        watch = bus.watch("a.*")
        async with bus:
            self.assertEqual(await self.next(watch), ("event", "a.b", {"n": 1}))


if __name__ == "__main__":
    unittest.main()
