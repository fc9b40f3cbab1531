import os
from dataclasses import dataclass
from typing import Iterable, Optional, Tuple, Union

import numpy as np
import numpy.typing as npt

__version__: str
SAMPLE_RATE: int
FRAME_SAMPLES: int
SWITCHES: Tuple[str, ...]

_Samples = Union[npt.NDArray[np.int16], npt.NDArray[np.float32]]
_Path = Union[str, os.PathLike]

@dataclass
class Result:
    audio: _Samples
    speech: npt.NDArray[np.int8]
    azimuth: npt.NDArray[np.int16]
    speech_probability: npt.NDArray[np.float32]
    @property
    def frame_times(self) -> npt.NDArray[np.float64]: ...
    @staticmethod
    def concatenate(parts: Iterable[Result]) -> Result: ...

class FrontEnd:
    def __init__(self, mode: Union[str, int] = ..., profile: Union[str, int] = ...,
                 config: Optional[_Path] = ..., *, agc: int = ..., beam: int = ..., doa: int = ...,
                 aec: int = ..., ns: int = ..., azimuth_deg: int = ..., vad_mode: int = ...) -> None: ...
    @property
    def switches(self) -> dict[str, int]: ...
    @property
    def config_warnings(self) -> str: ...
    @property
    def buffered(self) -> int: ...
    def process(self, mics: _Samples, ref: Optional[_Samples] = ...) -> Result: ...
    def flush(self) -> Result: ...
    def reset(self) -> None: ...
    def direction(self, stretch: Optional[_Samples] = ..., search: str = ...) -> Tuple[int, float]: ...

def read_wav(path: _Path) -> Tuple[npt.NDArray[np.int16], int]: ...
def write_wav(path: _Path, samples: npt.ArrayLike, rate: int = ...) -> None: ...
def process_file(path: _Path, output: Optional[_Path] = ..., ref: Optional[_Path] = ...,
                 mode: Union[str, int] = ..., profile: Union[str, int] = ..., config: Optional[_Path] = ...,
                 *, agc: int = ..., beam: int = ..., doa: int = ..., aec: int = ..., ns: int = ...,
                 azimuth_deg: int = ..., vad_mode: int = ...) -> Result: ...
