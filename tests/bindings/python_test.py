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
        heard = []
        with zel_utils.Service(heard.append) as service:  # a second one, after the first
            service.send({"cmd": 12})
            service.request(13)
        self.assertEqual(heard, [{"rsp": 12, "result": 0}])

    def test_initialises_and_counts(self):
        with tempfile.TemporaryDirectory(prefix="python_test.") as folder:
            data = pathlib.Path(folder)
            with zel_utils.Service() as service:
                reply = service.request(1, {"initParam": {
                    "log_path": f"{data}/", "dbPath": f"{data}/", "logLevel": 2, "logSize": 512,
                    "fileCount": 1}})
                self.assertEqual(reply["result"], 0)
                counts = zel_utils.statistics()
                self.assertEqual(counts["requests"]["stored"], 1)
                self.assertEqual(counts["version"], zel_utils.version())
            self.assertTrue((data / "sdkcache.db").exists())


if __name__ == "__main__":
    unittest.main()
