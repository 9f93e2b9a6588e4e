"""A guard timeout around each test, so that a fault shows as a failure, never a hang."""
import signal


class Guarded:
    """Mixed into a TestCase: each test fails once guard_seconds have passed."""
    guard_seconds = 60

    def setUp(self):
        signal.signal(signal.SIGALRM, self.expired)
        signal.alarm(self.guard_seconds)

    def tearDown(self):
        signal.alarm(0)

    @staticmethod
    def expired(signum, frame):
        raise TimeoutError("the test's guard timeout passed")
