"""The one exception the package raises for the library's error codes and SBP refusals."""

# The SBP results a source answers with, by value, for messages.
RESULT_NAMES = {
    0x00000000: "Success",
    0x10000002: "Failed",
    0x10000003: "InvalidInterval",
    0x10000004: "InvalidSubscriptionType",
    0x10000006: "PeriodicUpdateFailed",
    0x10000007: "AuthTimedOut",
    0x10000008: "AlreadyPending",
    0x10000009: "NothingToCancel",
    0x1000000A: "NoFreePacketId",
    0x1000000B: "Cancelled",
    0x1000000D: "UnexpectedCommand",
    0x01000000: "RequestGone",
}

# The codes the package itself raises, as the library names them.
FAILED, INVALID_PARAMETER, NETWORK_ERROR, ILLEGAL_WHILE_NOT_RUNNING = 1, 2, 5, 7
TIMEOUT, LOCAL_SBP_ERROR, REMOTE_SBP_ERROR = 12, 13, 14
_OWN_NAMES = {FAILED: "Failed", INVALID_PARAMETER: "InvalidParameter",
              NETWORK_ERROR: "NetworkError", ILLEGAL_WHILE_NOT_RUNNING: "IllegalWhileNotRunning",
              TIMEOUT: "Timeout", LOCAL_SBP_ERROR: "LocalSBPError",
              REMOTE_SBP_ERROR: "RemoteSBPError"}


class ZelcdbError(Exception):
    """A library error code (`code`, `name`), with the SBP result (`result`) when a source
    refused a request (RemoteSBPError) or the sink did not send it (LocalSBPError)."""

    def __init__(self, code, name=None, result=0, what=""):
        self.code, self.name, self.result = code, name or _OWN_NAMES.get(code, str(code)), result
        text = f"{self.name} ({code})"
        if result:
            text += f", SBP result 0x{result:08x} ({RESULT_NAMES.get(result, 'unknown')})"
        super().__init__(f"{what}: {text}" if what else text)


class Refused(Exception):
    """Raised by a source's getter or setter to answer the request with an SBP result
    (RESULT_FAILED by default) instead of a value."""

    def __init__(self, result=0x10000002):
        super().__init__(f"refused with 0x{result:08x}")
        self.result = result
