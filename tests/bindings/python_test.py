"""The Python package against the built library. Needs ZEL_UTILS_LIB, the library's path."""

import pathlib
import tempfile
import unittest

import zel_utils


class PythonPackageTest(unittest.TestCase):
    def test_requests_are_answered_and_what_else_comes_is_kept(self):
        with zel_utils.Service() as service:
            self.assertEqual(service.request(11, description="hello")["description"], "hello")
            service.send({"cmd": 12, "sno": 999})
            self.assertEqual(service.request(13)["rsp"], 13)
            self.assertEqual(service.next_message(), {"rsp": 12, "sno": 999, "result": 0})
            self.assertIsNone(service.next_message())
            with self.assertRaises(zel_utils.ServiceError):
                service.request(18, timeout=0.05)  # never answered

    def test_initialises_counts_and_hands_messages_over(self):
        heard = []
        # The library may write a last line while the folder goes.
        with tempfile.TemporaryDirectory(
                prefix="python_test.", ignore_cleanup_errors=True) as folder:
            with zel_utils.Service(heard.append) as service:
                service.send({"cmd": 12})
                reply = service.request(1, {"initParam": {
                    "log_path": f"{folder}/", "dbPath": f"{folder}/", "logLevel": 2,
                    "logSize": 512, "fileCount": 1}})
                self.assertEqual(reply["result"], 0)
                counts = zel_utils.statistics()
                self.assertEqual(counts["requests"]["stored"], 2)
                self.assertEqual(counts["version"], zel_utils.version())
            self.assertTrue(pathlib.Path(folder, "sdkcache.db").exists())
        self.assertEqual(heard[0], {"rsp": 12, "result": 0})


if __name__ == "__main__":
    unittest.main()
