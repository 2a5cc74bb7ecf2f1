// Compressed TBF stacks against HDF5 (Debian's libhdf5) on the same realistic 16-bit microscopy
// planes (microscopy_data.h), measured in the same run: 16 planes of 2048 x 2048 (128 MiB),
// deflated at level N on both sides.
//   library  create_file on 2 threads, add_stack, set_compression(zlib, N), one write per
//            plane, commit, close; read back whole (open, one read, close); as the zlib
//            benchmark does (compressed_stack.h).
//   HDF5     a dataset of 16 x 2048 x 2048 unsigned 16-bit samples, chunk = one plane, the
//            deflate filter at level N, one H5Dwrite per plane, closed and then synced; read back
//            whole with one H5Dread.
//   x_h5_write, x_h5_read  the library's throughput over HDF5's; limit >= 2 each.
//   size_h5                the library's stored data over HDF5's chunk storage
//                          (H5Dget_storage_size); limit <= 1.05.
// The label of each benchmark says which limits hold.
//
// Timing is wall-clock time (manual time: the library's write and read). Each iteration times
// both sides, in alternating order; ratios are ratios of the sums. Both writes end with the data
// durable (the library's close() syncs; HDF5's file is synced inside its time). Reads come from
// the page cache on both sides. The files go to the directory named by $TARNIO_BENCH_DIR
// (default: the current one) and are removed at the end.

#include <benchmark/benchmark.h>
#include <hdf5.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/bench_files.h"
#include "bench/bench_timing.h"
#include "bench/compressed_stack.h"
#include "bench/microscopy_data.h"

namespace tarnio_bench {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kPlanes = 16;
constexpr std::uint64_t kStackSamples = kPlaneSamples * kPlanes;
constexpr std::uint64_t kStackBytes = kStackSamples * sizeof(std::uint16_t);
constexpr double kStackMB = static_cast<double>(kStackBytes) / 1e6;

const std::vector<std::uint16_t>& samples() {
  static const std::vector<std::uint16_t> values = MicroscopyData().planes(0, kPlanes);
  return values;
}

// One HDF5 identifier, closed with `close` at the end of its scope. Throws when the call that
// made it failed.
class Hid {
 public:
  Hid(hid_t id, herr_t (*close)(hid_t), const char* what) : id_(id), close_(close) {
    if (id < 0) throw std::runtime_error(std::string("HDF5 failed: ") + what);
  }
  ~Hid() { close_(id_); }
  Hid(const Hid&) = delete;
  Hid& operator=(const Hid&) = delete;
  operator hid_t() const { return id_; }

 private:
  hid_t id_;
  herr_t (*close_)(hid_t);
};

void check(herr_t status, const char* what) {
  if (status < 0) throw std::runtime_error(std::string("HDF5 failed: ") + what);
}

// Writes the planes as one chunked, deflated dataset and returns its stored bytes.
std::uint64_t hdf5_write(const fs::path& path, std::span<const std::uint16_t> data,
                         unsigned level) {
  hsize_t storage = 0;
  {
    const Hid file(H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT), H5Fclose,
                   "H5Fcreate");
    const hsize_t dims[3] = {kPlanes, kSide, kSide};
    const hsize_t plane_dims[3] = {1, kSide, kSide};
    const Hid space(H5Screate_simple(3, dims, nullptr), H5Sclose, "H5Screate_simple");
    const Hid plane_space(H5Screate_simple(3, plane_dims, nullptr), H5Sclose, "H5Screate_simple");
    const Hid create(H5Pcreate(H5P_DATASET_CREATE), H5Pclose, "H5Pcreate");
    check(H5Pset_chunk(create, 3, plane_dims), "H5Pset_chunk");
    check(H5Pset_deflate(create, level), "H5Pset_deflate");
    const Hid dataset(
        H5Dcreate2(file, "planes", H5T_STD_U16LE, space, H5P_DEFAULT, create, H5P_DEFAULT),
        H5Dclose, "H5Dcreate2");
    for (std::uint64_t z = 0; z < kPlanes; ++z) {
      const hsize_t start[3] = {z, 0, 0};
      check(H5Sselect_hyperslab(space, H5S_SELECT_SET, start, nullptr, plane_dims, nullptr),
            "H5Sselect_hyperslab");
      check(H5Dwrite(dataset, H5T_NATIVE_UINT16, plane_space, space, H5P_DEFAULT,
                     data.data() + z * kPlaneSamples),
            "H5Dwrite");
    }
    storage = H5Dget_storage_size(dataset);
  }
  sync_file(path);
  return storage;
}

void hdf5_read(const fs::path& path, std::span<std::uint16_t> out) {
  const Hid file(H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT), H5Fclose, "H5Fopen");
  const Hid dataset(H5Dopen2(file, "planes", H5P_DEFAULT), H5Dclose, "H5Dopen2");
  check(H5Dread(dataset, H5T_NATIVE_UINT16, H5S_ALL, H5S_ALL, H5P_DEFAULT, out.data()), "H5Dread");
}

void BM_Hdf5(benchmark::State& state) {
  const auto level = static_cast<std::uint32_t>(state.range(0));
  const fs::path library_path = bench_file("planes.tbf");
  const fs::path hdf5_path = bench_file("planes.h5");
  const std::span<const std::uint16_t> data(samples());
  const std::span<std::uint16_t> out = destination<kStackSamples>();
  double library_write_s = 0, library_read_s = 0, hdf5_write_s = 0, hdf5_read_s = 0;
  std::uint64_t library_bytes = 0, hdf5_bytes = 0;
  bool hdf5_first = true;
  try {
    for (auto _ : state) {
      remove_file(library_path);
      remove_file(hdf5_path);
      double write_s = 0, read_s = 0;
      const auto hdf5_side = [&] {
        hdf5_write_s += wall_seconds([&] { hdf5_bytes = hdf5_write(hdf5_path, data, level); });
        std::fill(out.begin(), out.end(), 0);
        hdf5_read_s += wall_seconds([&] { hdf5_read(hdf5_path, out); });
        if (!std::equal(out.begin(), out.end(), data.begin())) {
          throw std::runtime_error("HDF5 read back other samples");
        }
      };
      const auto library_side = [&] {
        write_s =
            wall_seconds([&] { library_bytes = write_compressed(library_path, data, level); });
        std::fill(out.begin(), out.end(), 0);
        read_s = wall_seconds([&] { read_compressed(library_path, out); });
        if (!std::equal(out.begin(), out.end(), data.begin())) {
          throw std::runtime_error("the library read back other samples");
        }
      };
      run_both(hdf5_first, hdf5_side, library_side);
      library_write_s += write_s;
      library_read_s += read_s;
      state.SetIterationTime(write_s + read_s);
    }
  } catch (const std::exception& error) {
    state.SkipWithError(error.what());
  }
  remove_file(library_path);
  remove_file(hdf5_path);
  if (state.error_occurred()) return;
  const auto n = static_cast<double>(state.iterations());
  const double x_write = hdf5_write_s / library_write_s;
  const double x_read = hdf5_read_s / library_read_s;
  const double size = static_cast<double>(library_bytes) / static_cast<double>(hdf5_bytes);
  state.counters["x_h5_write"] = x_write;
  state.counters["x_h5_read"] = x_read;
  state.counters["size_h5"] = size;
  state.counters["library_write_MBps"] = n * kStackMB / library_write_s;
  state.counters["h5_write_MBps"] = n * kStackMB / hdf5_write_s;
  state.counters["library_read_MBps"] = n * kStackMB / library_read_s;
  state.counters["h5_read_MBps"] = n * kStackMB / hdf5_read_s;
  state.counters["h5_ratio"] = static_cast<double>(hdf5_bytes) / (kStackMB * 1e6);
  state.SetLabel(verdict("x_h5_write", x_write, true, 2.0) + "; " +
                 verdict("x_h5_read", x_read, true, 2.0) + "; " +
                 verdict("size_h5", size, false, 1.05));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kStackBytes));
}

// Registers the benchmarks, the data and the buffer ready before the first timing.
void register_benchmarks() {
  (void)samples();
  (void)destination<kStackSamples>();
  for (const int level : {1, 6}) {
    register_manual_time("hdf5_vs_library/uint16_2048x2048x16", BM_Hdf5, level == 1 ? 2 : 1)
        ->Arg(level)
        ->ArgName("level");
  }
}

}  // namespace
}  // namespace tarnio_bench

int main(int argc, char** argv) {
  // HDF5 reports its failures through the return values checked above, not on stderr.
  H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
  tarnio_bench::register_benchmarks();
  return tarnio_bench::run_benchmarks(argc, argv);
}
