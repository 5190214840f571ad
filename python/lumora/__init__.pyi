from typing import Callable, Optional, Sequence, Tuple, Union
import os

import numpy as np
import numpy.typing as npt

__version__: str

class Cancelled(Exception): ...

Frame = Union[npt.NDArray[np.uint8], npt.NDArray[np.uint16]]

def fuse(frames: Sequence[Frame], *, bgr: bool = ..., look: Optional[str] = ..., strength: Optional[float] = ...,
         sharpness: Optional[float] = ..., saturation: Optional[float] = ...,
         start_radius: Optional[float] = ..., radius_growth: Optional[float] = ...,
         spatial_sigma: Optional[float] = ..., range_sigma: Optional[float] = ...,
         highlight_influence: Optional[float] = ..., preserve_highlights: Optional[bool] = ...,
         loupe: Optional[Tuple[int, int, int, int]] = ..., depth: int = ..., threads: int = ...,
         verbose: bool = ..., progress: Optional[Callable[[float], Optional[bool]]] = ...) -> Frame: ...
def align(frames: Sequence[Frame], *, threads: int = ...) -> Tuple[list[npt.NDArray[np.uint8]], dict]: ...
def deghost(frames: Sequence[Frame], *, reference: Optional[int] = ...,
            threads: int = ...) -> Tuple[list[npt.NDArray[np.uint8]], dict]: ...
def read(path: Union[str, os.PathLike]) -> npt.NDArray[np.uint8]: ...
def write(path: Union[str, os.PathLike], array: Frame, *,
          metadata_from: Optional[Union[str, os.PathLike]] = ..., quality: int = ...) -> None: ...
