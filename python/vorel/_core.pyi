# Type hints of vorel._core, the compiled part of the package.
from typing import Any, Optional, Sequence, Union

import numpy as np
import numpy.typing as npt

__version__: str
BLOCK_ROWS: int

class Accumulator:
    def __init__(self, pairwise: bool, missing_code: Optional[float], grouped: bool,
                 threads: int) -> None: ...
    def update(self, data: Union[npt.NDArray[Any], Sequence[npt.NDArray[Any]]],
               weights: Optional[npt.NDArray[np.float64]],
               reg_weights: Optional[npt.NDArray[np.float64]],
               groups: Optional[npt.NDArray[np.int64]]) -> None: ...
    def merge(self, other: Accumulator, code_map: Sequence[int]) -> None: ...
    def result(self, group_order: Sequence[int], ddof: float) -> dict[str, Any]: ...
    @property
    def n_columns(self) -> int: ...
    @property
    def empty(self) -> bool: ...

def _use_whole_blocks(use: bool) -> None: ...
