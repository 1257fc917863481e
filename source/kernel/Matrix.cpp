#include "kernel/Matrix.h"

#include <algorithm>

namespace Kernel {
Matrix::Matrix(int rows, int columns)
    : rowCount(std::max(rows, 0)), columnCount(std::max(columns, 0)),
      values(static_cast<std::size_t>(rowCount) * static_cast<std::size_t>(columnCount)) {}
Matrix::Matrix(Matrix const &) = default;
Matrix & Matrix::operator=(Matrix const &) = default;
Matrix::~Matrix() = default;
}
