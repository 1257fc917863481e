#pragma once

#include "kernel/Export.h"

#include <vector>

namespace Kernel {
/// A dense matrix of doubles, row by row, of zeros at first.
class RASTER_API Matrix {
public:
    /// Negative numbers count as 0.
    Matrix(int rows, int columns);
    Matrix(Matrix const &);
    Matrix & operator=(Matrix const &);
    ~Matrix();

    int GetRows() const { return rowCount; }
    int GetColumns() const { return columnCount; }

    /// The row as an array of `GetColumns()` doubles. @param row  in 0..GetRows() - 1.
    double * operator[](int row) { return values.data() + GetRowStart(row); }
    double const * operator[](int row) const { return values.data() + GetRowStart(row); }

private:
    std::size_t GetRowStart(int row) const {
        return static_cast<std::size_t>(row) * static_cast<std::size_t>(columnCount);
    }

    int rowCount, columnCount;
    std::vector<double> values;
};
}
