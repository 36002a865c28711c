"""The client: one object for an application, which connects by itself and comes back by itself."""

from __future__ import annotations

import asyncio
import base64
import contextlib
import copy
import inspect
import itertools
import logging
import os
import secrets
import time
import weakref
from collections import deque
from dataclasses import replace
from typing import (Any, AsyncIterator, Awaitable, Callable, Dict, FrozenSet, Mapping, Optional,
                    Set, Tuple, Union)

from . import policy, values
from .errors import (INCORRECT_SIZE, UNREGISTERED_CLIENT, AnswerError, ClosedByBus, NobodyThere,
                     NotConnected, ProtocolError, Refused, TimedOut, TrelanError)
from .session import Session, Settings, open_session, taken_by
from .state import Reason, State, Status, reason_of
from .values import Change, Command, Content, Kind, Marker, Message, Object, Removal
from .watch import Feed, Watch

LOG = logging.getLogger("trelan.client")

QUERY_PORT = 43535
MESSAGE_PORT = 43537

FEATURES = frozenset({"clients", "limit", "now", "prompt", "removals", "told", "transient"})
"""What this client uses where a bus has it."""

MAX_LIMIT = 3_600_000
ANSWER_LIMIT = 60_000
"""Milliseconds for which an answer may wait: nobody waits for an answer for longer."""
MOST_RUNNING = 16
"""Served commands that run at once."""
MOST_WAITING = 64
"""Commands that wait for their turn to be served; further ones are answered with an error."""
MOST_TASKS = 1000
"""Answers on their way, errors included. Beyond that a refused command gets none."""
_numbers = itertools.count(1)

Function = Callable[[Command], Union[Optional[Mapping[str, Any]],
                                     Awaitable[Optional[Mapping[str, Any]]]]]


class Bus:
    """A client of a bus. Made by :func:`connect`; belongs to the event loop in which it began.

    Every operation raises :class:`NotConnected` while the bus is away, or waits ``patience``
    seconds for it; :class:`Refused` says what the bus does not want. Nothing is sent twice.
    """

    def __init__(self, settings: Settings, patience: float, timeout: float,
                 on_state: Optional[Callable[[State], None]]) -> None:
        self._settings = settings
        self._patience = patience
        self._timeout = timeout
        self._on_state = on_state
        self._state = State(Status.CONNECTING, time.time())
        self._session: Optional[Session] = None
        self._changed = asyncio.Event()
        self._backoff = policy.Backoff()
        self._seen = policy.Seen()
        self._subscription = 0
        self._wanted: Dict[str, int] = {}
        self._feeds: Dict[Feed, None] = {}
        self._calls: Dict[str, Tuple[str, asyncio.Future[Command]]] = {}
        self._served: Dict[str, Tuple[Function, float]] = {}
        self._turns = asyncio.Semaphore(MOST_RUNNING)
        self._serving = 0
        self._inbox: policy.Waiting[Union[Message, Command]] = policy.Waiting()
        self._has_reader = False
        self._arrived = asyncio.Event()
        self._tasks: Set[asyncio.Future[Any]] = set()
        self._runner: Optional[asyncio.Future[None]] = None

    # Coming and going

    @property
    def name(self) -> str:
        """The name of this client on the bus."""
        return self._settings.name

    @property
    def state(self) -> State:
        """Whether there is a bus, and why not."""
        return self._state

    @property
    def features(self) -> FrozenSet[str]:
        """What the bus can do beyond what every bus can; empty while there is none."""
        return self._session.greeting.features if self._session is not None else frozenset()

    @property
    def missing(self) -> FrozenSet[str]:
        """What this client does without, because this bus does not have it.

        Without ``now`` and ``told`` a watch loads the values that are stored, cannot tell events
        from values that were stored, and counts on no marker. Without ``removals`` it hears of a
        removal only after a reconnection. Without ``limit`` a call may wait for a client that is
        slow.
        """
        return FEATURES - self.features if self._session is not None else frozenset()

    async def __aenter__(self) -> Bus:
        self._runner = asyncio.ensure_future(self._run())
        try:
            if self._timeout > 0:
                await self.connected(self._timeout)
        except BaseException:
            await self.close()
            raise
        return self

    async def __aexit__(self, *_: object) -> None:
        await self.close()

    async def connected(self, timeout: float) -> None:
        """Waits for a bus; raises why there is none when the time is over."""
        deadline = time.monotonic() + timeout
        while self._session is None:
            left = deadline - time.monotonic()
            if left <= 0 or self._state.status is Status.CLOSED:
                raise NotConnected(self._state.text or "there is no bus yet")
            if self._state.reason in (Reason.REFUSED, Reason.WRONG_PORT):
                raise copy.copy(self._why)
            self._changed.clear()
            with contextlib.suppress(asyncio.TimeoutError):
                await asyncio.wait_for(self._changed.wait(), left)

    async def forever(self) -> None:
        """Waits until the client is closed, for programs that only serve."""
        while self._state.status is not Status.CLOSED:
            self._changed.clear()
            await self._changed.wait()

    async def close(self) -> None:
        """Ends everything, in about two seconds at most. What waits for an answer is not
        connected."""
        runner, self._runner = self._runner, None
        if runner is not None:
            runner.cancel()
            await asyncio.gather(runner, return_exceptions=True)
        tasks = list(self._tasks)
        for task in tasks:
            task.cancel()
        await asyncio.gather(*tasks, return_exceptions=True)
        self._set_state(Status.CLOSED, text="the client was closed")
        for _, answer in self._calls.values():
            if not answer.done():
                answer.set_exception(NotConnected("the client was closed", sent=True))
        for feed in self._feeds:
            feed.stop()
        self._arrived.set()

    async def _run(self) -> None:
        self._why: TrelanError = NotConnected("there is no bus yet")
        while True:
            try:
                session = await open_session(self._settings)
            except TrelanError as error:
                self._away(reason_of(error), error)
                pause = self._backoff.after_failure()
            else:
                self._backoff.succeeded()
                pause = await self._live(session)
            await asyncio.sleep(pause)

    async def _live(self, session: Session) -> float:
        """Serves a session until it ends, and says how long to wait ahead of the next one."""
        readers = [asyncio.ensure_future(session.queries.run()),
                   asyncio.ensure_future(self._deliver(session))]
        try:
            self._session = session
            self._set_state(Status.CONNECTED)
            for wildcard in list(self._wanted):
                self._spawn(self._subscribe(session, wildcard), session.tasks)
            done, _ = await asyncio.wait(readers, return_when=asyncio.FIRST_COMPLETED)
        finally:
            self._session = None
            for feed in self._feeds:
                feed.lost()
            for reader in readers:
                reader.cancel()
            for task in list(session.tasks):
                task.cancel()
            await asyncio.gather(*readers, *session.tasks, return_exceptions=True)
            await session.close()
        error = next(iter(done)).exception()
        if not isinstance(error, TrelanError):
            LOG.error("The client has a fault", exc_info=error)
            error = NotConnected(f"a fault of the client: {error!r}")
        if time.monotonic() - session.began > policy.Backoff.LONGEST_TAKEN:
            self._backoff.lasted()
        holder = await taken_by(self._settings, session) if isinstance(error, ClosedByBus) else None
        if holder is None:
            self._away(reason_of(error), error)
            return self._backoff.after_failure()
        by = f" by {holder}" if holder else ""
        self._away(Reason.NAME_TAKEN, NotConnected(f"the name {self.name!r} was taken over{by}"))
        return self._backoff.after_taken()

    def _away(self, reason: Reason, error: TrelanError) -> None:
        self._why = error
        if self._state.reason is not reason or self._state.status is not Status.AWAY:
            self._set_state(Status.AWAY, reason, str(error))

    def _set_state(self, status: Status, reason: Reason = Reason.NONE, text: str = "") -> None:
        if status is Status.CONNECTED and self._state.status is Status.AWAY:
            LOG.info("The bus is back")
        elif status is Status.AWAY:
            LOG.warning("The bus is away: %s", text)
        self._state = State(status, time.time(), reason, text)
        self._changed.set()
        if self._on_state is not None:
            try:
                self._on_state(self._state)
            except Exception:  # pylint: disable=broad-except
                LOG.exception("on_state has failed")

    def _spawn(self, work: Awaitable[Any],
               tasks: Optional[Set[asyncio.Future[Any]]] = None) -> None:
        tasks = self._tasks if tasks is None else tasks
        task = asyncio.ensure_future(work)
        tasks.add(task)
        task.add_done_callback(tasks.discard)

    async def _ask(self, operation: str, data: Mapping[str, Any], *,
                   again: bool = False) -> Dict[str, Any]:
        """The answer of the bus. With ``again`` it does no harm to ask twice."""
        deadline = time.monotonic() + self._patience
        while True:
            session = self._session
            try:
                if session is None:
                    raise NotConnected(self._state.text or "there is no bus yet")
                return await session.queries.ask(operation, data)
            except NotConnected as error:
                left = deadline - time.monotonic()
                if left <= 0 or error.sent and not again or self._runner is None:
                    raise
                with contextlib.suppress(asyncio.TimeoutError):
                    await asyncio.wait_for(self._next_session(session), left)

    # Objects

    async def publish(self, name: str, content: Mapping[str, Any], *, stored: bool = True,
                      permanent: bool = False, logged: bool = False) -> None:
        """Publishes an object. It is done when this returns, and on disk if it is permanent.

        A stored object stays on the bus until it is replaced or removed; one that is not is an
        event, which only those who watch now are told.
        """
        if permanent and not stored:
            raise ValueError("what is permanent is stored, too")
        flags = values.STORED * stored | values.PERMANENT * permanent | values.LOGGED * logged
        await self._ask("pub", {"nm": name, "cnt": content, "opt": flags, "uid": _new_uid()})

    async def get(self, name: str) -> Object:
        """The stored object of that name; Refused with code 2 if there is none."""
        return values.object_of(await self._ask("loadObject", {"nm": name}, again=True))

    async def ls(self, wildcard: str = "*") -> Dict[str, Object]:
        """The stored objects that a wildcard takes in, by name."""
        answer = await self._ask("loadObjects", {"wc": wildcard}, again=True)
        return {name: values.object_of(answer[name]) for name in sorted(answer)}

    async def rm(self, *names: str) -> None:
        """Removes objects from memory and disk. Names that are not there are no error."""
        await self._ask("rm", {"objects": list(names)})

    # Watching

    def watch(self, *wanted: str, most_events: int = 1000) -> Watch:
        """Watches what the wildcards take in: see :class:`Watch`. Begins at once."""
        if not wanted:
            raise ValueError("watch what?")
        feed = Feed(frozenset(wanted), most_events, self._subscription)
        watch = Watch(feed, _releaser(weakref.ref(self), asyncio.get_running_loop()))
        if self._state.status is Status.CLOSED:
            feed.stop()
        self._feeds[feed] = None
        for wildcard in feed.wanted:
            self._wanted[wildcard] = self._wanted.get(wildcard, 0) + 1
            if self._session is not None:
                self._spawn(self._subscribe(self._session, wildcard), self._session.tasks)
        return watch

    def _release(self, feed: Feed) -> None:
        self._feeds.pop(feed, None)
        for wildcard in feed.wanted:
            self._wanted[wildcard] -= 1
            if not self._wanted[wildcard]:
                del self._wanted[wildcard]
                if self._session is not None:
                    self._spawn(self._unsubscribe(self._session, wildcard), self._session.tasks)

    async def _unsubscribe(self, session: Session, wildcard: str) -> None:
        with contextlib.suppress(TrelanError):
            await session.queries.ask("unsub", {"wc": wildcard})

    async def _subscribe(self, session: Session, wildcard: str) -> None:
        data: Dict[str, Any] = {"wc": wildcard}
        if session.has("removals"):
            data["removals"] = True
        try:
            if session.tells:
                await self._subscribe_told(session, {**data, "now": True, "told": True})
            else:
                await self._subscribe_and_load(session, data)
        except NotConnected:
            pass  # the next session subscribes
        except TrelanError as error:
            LOG.warning("Watching %r failed: %s", wildcard, error)
            for feed in self._feeds:
                if wildcard in feed.wanted:
                    feed.stop(error)

    async def _subscribe_told(self, session: Session, data: Mapping[str, Any]) -> None:
        wildcard = data["wc"]
        await session.turns.acquire()  # until the marker comes
        if wildcard not in self._wanted:
            session.turns.release()
            return
        self._subscription += 1
        subscription = self._subscription
        awaited = session.awaited.setdefault(wildcard, deque())
        awaited.append(subscription)
        try:
            await session.queries.ask("sub", data)
        except Refused:
            awaited.remove(subscription)
            session.turns.release()
            raise

    async def _subscribe_and_load(self, session: Session, data: Mapping[str, Any]) -> None:
        wildcard = data["wc"]
        self._subscription += 1
        subscription = self._subscription
        newer: Set[str] = set()  # what is notified of meanwhile is no older than what is loaded
        session.loading.append(newer)
        try:
            await session.queries.ask("sub", data)
            loaded = await session.queries.ask("loadObjects", {"wc": wildcard})
        finally:
            session.loading.remove(newer)
        for value in (values.object_of(loaded[name]) for name in sorted(loaded)):
            change = Change(**vars(value), kind=Kind.NOW)
            for feed in self._feeds:
                if not feed.takes_in(change.name):
                    continue
                if change.name in newer:
                    feed.take_older(change, subscription)
                else:
                    feed.take(change, subscription)
        self._marked(wildcard, subscription)

    def _marked(self, wildcard: str, subscription: int) -> None:
        for feed in self._feeds:
            if wildcard in feed.wanted:
                feed.take_marker(wildcard, subscription)

    # What is delivered

    async def _deliver(self, session: Session) -> None:
        self._seen.begin_connection()
        async for batch in session.messages.batches():
            for data in batch:
                try:
                    said = values.said(data)
                    if self._seen.is_new(str(data.get("s", "")), str(data.get("uid", "")),
                                         not isinstance(said, (Message, Command))):
                        self._take(session, data, said)
                except ProtocolError as error:
                    LOG.warning("A delivery cannot be read: %s", error)
            await asyncio.sleep(0)  # so that readers get their turn in a flood

    def _take(self, session: Session, data: Mapping[str, Any], said: values.Said) -> None:
        size = len(str(data.get("msg", "")))
        if isinstance(said, Removal):
            if session.has("removals"):
                said = Change(said.name, {}, str(data.get("s", "")),
                              values.milliseconds(data.get("dt")), str(data.get("uid", "")),
                              Kind.REMOVED)
            else:
                said = Message(str(data.get("s", "")), str(data["msg"]))
        if isinstance(said, Change):
            self._take_change(session, said, size)
        elif isinstance(said, Marker):
            awaited = session.awaited.get(said.wildcard)
            if awaited and data.get("s") == self.name:
                session.turns.release()
                self._marked(said.wildcard, awaited.popleft())
        elif isinstance(said, Command):
            self._take_command(said, size)
        else:
            self._take_in(said, size)

    def _take_change(self, session: Session, change: Change, size: int) -> None:
        if not session.tells and change.kind is not Kind.REMOVED:
            change = replace(change, kind=Kind.CHANGED)
            for newer in session.loading:
                newer.add(change.name)
        # Without the feature, nobody says whether a change was stored.
        event = change.kind is Kind.EVENT or not session.tells and change.kind is Kind.CHANGED
        for feed in self._feeds:
            if not feed.takes_in(change.name):
                continue
            if event:
                feed.take_event(change, size)
            else:
                feed.take(change, self._subscription)

    def _take_in(self, item: Union[Message, Command], size: int) -> None:
        self._inbox.put(item, size)
        self._arrived.set()

    # Messages and commands

    @property
    def dropped(self) -> int:
        """How many messages were dropped because nobody has taken them in time."""
        return self._inbox.dropped

    async def messages(self) -> AsyncIterator[Union[Message, Command]]:
        """Messages, and commands that no function serves. Ends with the client.

        At most 1,000 of them, of 16 MiB, wait for who takes them; then the oldest are dropped, and
        ``dropped`` counts them. A command that needs an answer gets it with :meth:`answer`.
        """
        self._has_reader = True
        while True:
            while not len(self._inbox):
                if self._state.status is Status.CLOSED:
                    return
                self._arrived.clear()
                await self._arrived.wait()
            yield self._inbox.take()

    async def send(self, receiver: str, text: str, *, stored: bool = False, logged: bool = False,
                   limit: Optional[float] = None) -> None:
        """Sends a text. NobodyThere if the receiver is not connected; with ``stored`` it waits
        there.

        ``limit`` is the number of seconds after which it is of no use any more, for a bus that can
        drop it then.
        """
        flags = values.STORED * stored | values.LOGGED * logged
        await self._send(receiver, text, flags, limit, _new_uid())

    async def _send(self, receiver: str, text: str, flags: int, limit: Optional[float],
                    uid: str) -> None:
        data: Dict[str, Any] = {"r": receiver, "msg": text, "ops": flags, "uid": uid}
        if limit is not None and "limit" in self.features:
            data["limit"] = max(1, min(int(limit * 1000), MAX_LIMIT))
        try:
            await self._ask("sendMessage", data)
        except Refused as error:
            if error.code == UNREGISTERED_CLIENT:
                raise NobodyThere(error.code, error.description) from None
            raise

    async def call(self, receiver: str, command: str, params: Optional[Mapping[str, Any]] = None, *,
                   timeout: float = 5.0) -> Content:
        """Sends a command, and returns the parameters of the answer.

        Raises NobodyThere at once if the receiver is not connected, TimedOut when no answer comes
        in time, and AnswerError when the answer is an error. Only the receiver can answer.
        """
        uid = _new_uid()
        answer: asyncio.Future[Command] = asyncio.get_running_loop().create_future()
        self._calls[uid] = (receiver, answer)

        async def ask() -> Command:
            text = values.command_text(command, params or {})
            await self._send(receiver, text, values.NEEDS_ANSWER, timeout, uid)
            return await answer

        try:
            answered = await asyncio.wait_for(ask(), timeout)
        except asyncio.TimeoutError:
            raise TimedOut(f"{receiver} has not answered {command} in {timeout:g} s") from None
        finally:
            del self._calls[uid]
        if not isinstance(answered.params, dict):
            raise AnswerError("the answer is no object", answered.params)
        if "error" in answered.params:
            raise AnswerError(str(answered.params["error"]), answered.params)
        return answered.params

    def serve(self, command: str, function: Function, *, timeout: float = 60.0) -> None:
        """Answers a command with what a function, plain or asynchronous, makes of it.

        The function gets the :class:`Command` and returns the parameters of the answer. What it
        raises becomes the parameter ``error``, and so does a function that takes too long. A plain
        function runs in the event loop, and must not block it. Sixteen asynchronous ones run at
        once.
        """
        if command in self._served:
            raise ValueError(f"{command!r} is served already")
        self._served[command] = (function, timeout)

    def unserve(self, command: str) -> None:
        """Ends what serve() began. What runs is still answered."""
        self._served.pop(command, None)

    async def answer(self, command: Command, params: Mapping[str, Any]) -> None:
        """Answers a command that came with messages(). NobodyThere if the caller is gone."""
        if not command.needs_answer:
            raise ValueError(f"nobody waits for an answer to {command.name!r}")
        text = values.command_text(command.name, params, command.uid)
        await self._send(command.sender, text, 0, ANSWER_LIMIT / 1000, _new_uid())

    def _take_command(self, command: Command, size: int) -> None:
        if command.parent is not None:
            receiver, answer = self._calls.get(command.parent, ("", None))
            if answer is None or receiver != command.sender or answer.done():
                LOG.debug("An answer of %r to %r is dropped", command.sender, command.name)
            else:
                answer.set_result(command)
        elif command.name in self._served:
            self._serve(command)
        elif self._has_reader or not command.needs_answer:
            self._take_in(command, size)
        else:
            self._refuse(command, f"nobody serves {command.name!r} here")

    def _serve(self, command: Command) -> None:
        if self._serving < MOST_RUNNING + MOST_WAITING:
            self._serving += 1
            self._spawn(self._run_served(command, *self._served[command.name]))
        else:
            self._refuse(command, "too many commands wait here")

    def _refuse(self, command: Command, error: str) -> None:
        LOG.debug("A command %r of %r is refused: %s", command.name, command.sender, error)
        if command.needs_answer and len(self._tasks) < MOST_TASKS:
            self._spawn(self._reply(command, {"error": error}))

    async def _run_served(self, command: Command, function: Function, timeout: float) -> None:
        try:
            async with self._turns:
                params = await _result(command, function, timeout)
            if command.needs_answer:
                await self._reply(command, params)
        finally:
            self._serving -= 1

    async def _reply(self, command: Command, params: Mapping[str, Any]) -> None:
        """Answers, also when the bus is away for a while; never twice."""
        session = self._session
        try:
            await self.answer(command, params)
        except (TypeError, ValueError) as error:
            await self._reply(command, {"error": f"the answer is no JSON: {error}"})
        except TrelanError as error:
            LOG.debug("The answer to %r cannot be sent: %s", command.name, error)
            too_large = isinstance(error, Refused) and error.code == INCORRECT_SIZE
            if too_large and "error" not in params:
                params = {"error": f"the answer is too large: {error}"}
            elif not isinstance(error, NotConnected) or error.sent:
                return
            with contextlib.suppress(asyncio.TimeoutError):
                await asyncio.wait_for(self._next_session(session), ANSWER_LIMIT / 1000)
                await self._reply(command, params)

    async def _next_session(self, session: Optional[Session]) -> None:
        while self._session in (session, None) and self._state.status is not Status.CLOSED:
            self._changed.clear()
            await self._changed.wait()


def _releaser(bus: weakref.ref[Bus], loop: asyncio.AbstractEventLoop) -> Callable[[Feed], None]:
    """Ends a watch from wherever the last reference to it goes away."""
    def release(feed: Feed) -> None:
        alive = bus()
        if alive is not None:
            with contextlib.suppress(RuntimeError):  # the loop is closed, and with it all
                loop.call_soon_threadsafe(alive._release, feed)

    return release


async def _result(command: Command, function: Function, timeout: float) -> Mapping[str, Any]:
    try:
        result = function(command)
        if inspect.isawaitable(result):
            result = await asyncio.wait_for(result, timeout)
    except asyncio.TimeoutError:
        return {"error": f"{command.name} has taken longer than {timeout:g} s"}
    except Exception as error:  # pylint: disable=broad-except
        LOG.debug("Serving %r failed", command.name, exc_info=True)
        plain = str(error) and not isinstance(error, KeyError)  # whose text is the key alone
        return {"error": str(error) if plain else repr(error)}
    if result is None:
        return {}
    if not isinstance(result, Mapping):
        return {"error": f"{command.name} gave no parameters but {type(result).__name__}"}
    return result


def _new_uid() -> str:
    return base64.b64encode(secrets.token_bytes(20)).decode()


def _default_name() -> str:
    number = next(_numbers)
    return f"python-{os.getpid()}" + (f"-{number}" if number > 1 else "")


def connect(name: Optional[str] = None, *, host: str = "127.0.0.1", query_port: int = QUERY_PORT,
            message_port: int = MESSAGE_PORT, timeout: float = 10.0, patience: float = 0.0,
            transient: Optional[bool] = None,
            on_state: Optional[Callable[[State], None]] = None) -> Bus:
    """A client of the bus at ``host``, for ``async with``.

    Entering waits ``timeout`` seconds for the bus, and raises why there is none; with 0 it does not
    wait. From then on the client comes back by itself. ``patience`` is the number of seconds for
    which an operation waits for a bus that is away. The name has to be unique on the bus; without
    one the process number makes it so. With ``transient``, which is the default without a
    name, no message waits for this client while it is not connected. ``on_state`` is called with
    every new :class:`State`.
    """
    if transient is None:
        transient = name is None
    settings = Settings(name or _default_name(), host, query_port, message_port, transient, 10.0)
    return Bus(settings, patience, timeout, on_state)
