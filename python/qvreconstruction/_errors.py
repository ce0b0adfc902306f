"""The exceptions the library's status codes become."""


class QvError(RuntimeError):
    """A frame operation or init refused; ``status`` is the library's negative status code."""

    def __init__(self, message: str, status: int) -> None:
        super().__init__(message)
        self.status = status


class RecordingError(QvError):
    """A recording that cannot be opened, read or written. The message names the file
    and, for damaged bytes, the chunk and its offset; ``status`` is the recording
    library's code (-1 input/output, -2 not MCAP, -3 truncated, -4 bad record, -5 bad
    CRC, -6 unsupported compression, -7 invalid argument)."""
