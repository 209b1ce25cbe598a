#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The Python package, with a recorder and, if TELVORA_SOCKET is set, with a real daemon."""
import datetime
import gc
import logging
import os
import subprocess
import sys
import threading
import unittest

import telvora
from telvora import keys
from telvora._library import ffi

PATIENCE = 60
INFO = telvora.session_info(client_type=8, session_id=7, batch=True)
USER = telvora.user_info("tester")
PAYLOAD = {"fruit": "quince"}


class Recorded(unittest.TestCase):
    def setUp(self):
        self.recorder = telvora.Recorder()

    def test_keeps_every_kind_of_value(self):
        noon = datetime.datetime(2026, 11, 22, 12, tzinfo=datetime.timezone.utc)
        values = {"array": [1, "two", [3.5]], "bool": True, "data": b"\0\xff", "date": noon, "double": 0.25,
                  "empty": b"", "int": 4_000_000_000, "text": "grüezi"}
        values["dictionary"] = dict(values)
        with telvora.Session(recorder=self.recorder) as session:
            session.send(5, 6, values)
            deep = [0]
            for _ in range(20):
                deep = [deep]
            for error, value in ((TypeError, None), (TypeError, object()), (ValueError, "a\0b"), (ValueError, "\ud800"),
                                 (OverflowError, 1 << 63), (ValueError, deep)):
                self.assertRaises(error, session.send, 5, 6, {"key": value})
            self.assertRaises(OverflowError, session.send, 65536, 6)
            session._session = None
            self.assertIsInstance(session.flush().exception(), telvora.TelvoraError)
        self.assertEqual([call["payload"] for call in self.recorder.calls], [values])
        child = telvora.child_info(telvora.session_info(8, 1, hierarchy="t"), 2)
        self.assertEqual((child[keys.kTelvoraSessionInfoSessionID], child[keys.kTelvoraSessionInfoHierarchyToken]),
                         (2, {keys.kTelvoraHierarchyTokenTokenID: "t", keys.kTelvoraHierarchyTokenLevel: 1}))
        self.assertIsNone(telvora.child_info(INFO, 2))
        self.assertEqual(ffi.typeof("telvora_status").elements,
                         {status.value: f"TELVORA_{'' if status == 0 else 'ERROR_'}{status.name}"
                          for status in telvora.Status})

    def test_records_what_would_be_sent(self):
        heard, logged = [], []
        handler = logging.Handler()
        handler.emit = logged.append
        logging.getLogger("telvora").addHandler(handler)

        def on_message(message):
            heard.append(message)
            raise KeyError("must not reach C")

        self.recorder.answer("sendMessage", telvora.Status.OK, "kept")
        self.recorder.answer("flushMessages", telvora.Status.LOST)
        self.recorder.answer("finishSession", telvora.Status.UNAVAILABLE)
        with telvora.Session(recorder=self.recorder, on_message=on_message) as session:
            session.set_info(INFO, USER, ["Framework"])
            self.assertEqual(session.send(5, 6, PAYLOAD).result(PATIENCE), "kept")
            self.assertEqual(session.flush().exception(PATIENCE).status, telvora.Status.LOST)
            self.assertTrue(session.upload_file("/nowhere").result(PATIENCE))
            self.recorder.deliver(5, 6, {"k": "delivered"}, INFO, 1000.5)
            self.recorder.deliver(0, 0)
            with self.assertRaises(telvora.TelvoraError) as failure:
                session.wait(PATIENCE)
            self.assertEqual(failure.exception.status, telvora.Status.LOST)
            self.assertEqual(session.finish().exception().status, telvora.Status.UNAVAILABLE)
        self.assertEqual([message.is_end_marker for message in heard], [False, True])
        self.assertEqual((heard[0].payload, heard[0].timestamp.timestamp()), ({"k": "delivered"}, 1000.5))
        self.assertEqual(len(logged), 2)
        self.assertEqual(self.recorder.calls[0], {
            "operation": "setSessionInfo", "sessionInfo": INFO, "userInfo": USER, "frameworksToCheck": ["Framework"],
            "hasAggregationBlock": True})

    # Sessions that are closed, collected or left at the interpreter's exit while threads use them.
    def test_may_be_left_at_any_time(self):
        session = telvora.Session(recorder=self.recorder)
        threads = [threading.Thread(target=lambda: [session.send(1, i).add_done_callback(id) for i in range(500)])
                   for _ in range(8)]
        for thread in threads:
            thread.start()
        session.close()
        for thread in threads:
            thread.join()
        del session, threads, thread
        gc.collect()
        code = "import telvora; s = telvora.Session(recorder=telvora.Recorder(), on_message=print); s.send(1, 2); " \
               "s.flush().add_done_callback(print)"
        self.assertEqual(subprocess.run([sys.executable, "-c", code], capture_output=True, check=True).stderr, b"")


@unittest.skipUnless("TELVORA_SOCKET" in os.environ, "needs a daemon")
class WithADaemon(unittest.TestCase):
    def test_carries_every_operation(self):
        events = []
        session = telvora.Session(on_message=events.append)
        message = {keys.kTelvoraMessageParametersCategory: 5, keys.kTelvoraMessageParametersType: 7,
                   keys.kTelvoraMessageParametersPayload: PAYLOAD}
        answers = [session.set_info(INFO, USER, ["Framework"]), session.start(), session.fetch_states(USER),
                   session.fetch_display_url(), session.send(5, 6, PAYLOAD), session.send_dictionary(message),
                   session.upload_log_data(["record"]), session.upload_file(__file__), session.finish()]
        backends = ["httpPost", "uploadServer"]
        self.assertEqual([answer.result(PATIENCE) for answer in answers[:4] + answers[6:8]],
                         [None, backends, backends, "URL not available", False, True])
        self.assertIn("quince", session.flush().result(PATIENCE))
        error = session.flush().exception(PATIENCE)
        self.assertEqual((error.code, error.description), (-1, "Nothing to flush"))
        self.assertEqual(session.send_single(INFO, USER, 8, 9, PAYLOAD).result(PATIENCE), "finished")
        session.wait(PATIENCE)
        self.assertEqual([(event.category, event.type) for event in events], [(0, 0), (5, 6), (5, 7), (0, 2)])
        self.assertRaises(FileNotFoundError, session.upload_file, "/nowhere")
        self.assertRaises(ValueError, session.send_single, {}, None, 1, 1)
        with telvora.Session(socket_path="/nowhere") as absent:
            self.assertEqual(absent.flush().exception().status, telvora.Status.UNAVAILABLE)


if __name__ == "__main__":
    unittest.main()
