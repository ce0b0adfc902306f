"""The exception the library's status codes become."""


class QvError(RuntimeError):
    """A frame operation or init refused; ``status`` is the library's negative status code."""

    def __init__(self, message: str, status: int) -> None:
        super().__init__(message)
        self.status = status
