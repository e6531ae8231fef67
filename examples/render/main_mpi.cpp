// vekr-render-mpi: vekr-render spread over the ranks of an MPI job.
//
// Rank 0 loads the mesh and builds the scene (accelerator records, scene box,
// KD tree), then broadcasts it as bytes: vertices, triangles, normals,
// accelerator records and the KD-tree block, which is position-independent
// and works wherever it lands. Work is handed out dynamically in units of one
// row of tiles of one frame: every rank (rank 0 too, between its own units)
// asks rank 0 for the next unit and sends the finished pixels back with its
// next request; rank 0 assembles the frames and writes them. A pixel depends
// only on the scene, the options and the frame, so the images are the same,
// bit for bit, as vekr-render's.
#include <mpi.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "mesh_io.h"
#include "options.h"
#include "renderer.h"
#include "vekcore.h"

namespace {

const int kTagRequest = 1, kTagUnit = 2;

using Clock = std::chrono::steady_clock;
double since(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

// Broadcasts the bytes of a vector of plain values from rank 0 (size first),
// in pieces of at most 1 GiB (MPI counts are int).
template <class T>
void broadcast(std::vector<T>& v) {
    unsigned long long bytes = v.size() * sizeof(T);
    MPI_Bcast(&bytes, 1, MPI_UNSIGNED_LONG_LONG, 0, MPI_COMM_WORLD);
    v.resize(bytes / sizeof(T));
    char* p = reinterpret_cast<char*>(v.data());
    for (unsigned long long done = 0; done < bytes;) {
        int piece = static_cast<int>(std::min<unsigned long long>(bytes - done, 1ull << 30));
        MPI_Bcast(p + done, piece, MPI_BYTE, 0, MPI_COMM_WORLD);
        done += piece;
    }
}

template <class T>
void broadcastValue(T& value) {
    MPI_Bcast(&value, static_cast<int>(sizeof(T)), MPI_BYTE, 0, MPI_COMM_WORLD);
}

// Ships rank 0's scene to every rank. The tree block arrives in memory from
// the core allocator, so the scene releases it with vekrKDTreeFree like one
// that it built.
bool broadcastScene(render::Scene& s, int rank, std::string& error) {
    broadcast(s.vertices);
    broadcast(s.triangles);
    broadcast(s.vertexNormals);
    broadcast(s.triNormals);
    broadcast(s.accel);
    for (auto& c : s.shCoeffs) broadcast(c);
    broadcastValue(s.box);
    broadcastValue(s.meshBox);
    broadcastValue(s.numMeshTriangles);
    broadcastValue(s.camera);
    broadcastValue(s.target);
    broadcastValue(s.light);
    broadcastValue(s.lightScale);
    broadcastValue(s.shOrder);
    std::vector<unsigned char> tree;
    if (rank == 0) {
        const unsigned char* p = reinterpret_cast<const unsigned char*>(s.tree);
        tree.assign(p, p + s.treeSize);
    }
    broadcast(tree);
    if (rank != 0) {
        s.treeSize = static_cast<int>(tree.size());
        s.tree = static_cast<VekrKDTreeNode*>(vekMalloc(s.treeSize));
        if (!s.tree) {
            error = "out of memory for the KD tree";
            return false;
        }
        std::memcpy(s.tree, tree.data(), tree.size());
        return render::attachScene(s, error);
    }
    return true;
}

// Rows [first, first + count) of the image, as bytes.
void copyRows(const render::Image& img, int first, int count, unsigned char* out) {
    std::memcpy(out, img.rgb.data() + 3ull * first * img.width, 3ull * count * img.width);
}

}  // namespace

int main(int argc, char** argv) {
    int provided = 0;
    MPI_Init_thread(&argc, &argv, MPI_THREAD_FUNNELED, &provided);
    int rank = 0, size = 1;
    MPI_Comm_rank(MPI_COMM_WORLD, &rank);
    MPI_Comm_size(MPI_COMM_WORLD, &size);
    auto finish = [&](int code, const std::string& msg) {
        if (rank == 0 && !msg.empty()) std::fprintf(stderr, "vekr-render-mpi: %s\n", msg.c_str());
        MPI_Finalize();
        return code;
    };

    // Every rank reads the same command line; rank 0 speaks for all.
    render::CommandLine cl;
    std::string error;
    if (int code = render::parseCommandLine(argc, argv, cl, error)) return finish(code, error);
    if (cl.help) {
        if (rank == 0) std::fputs(render::kUsage, stdout);
        return finish(0, "");
    }
    const render::Options& opt = cl.opt;
    const auto t0 = Clock::now();

    render::Scene scene;
    render::StageTimes times;
    int ok = 1, numTriangles = 0;
    if (rank == 0) {
        render::Mesh mesh;
        if (cl.generate)
            render::generateSpheres(cl.generate * 1000000L, mesh);
        ok = (cl.generate || render::loadMesh(cl.meshPath, mesh, error)) &&
             render::buildScene(mesh, opt, scene, error, times);
        numTriangles = mesh.numTriangles();
    }
    MPI_Bcast(&ok, 1, MPI_INT, 0, MPI_COMM_WORLD);
    if (!ok) return finish(1, error);
    const double build = since(t0);
    ok = broadcastScene(scene, rank, error) ? 1 : 0;
    int allOk = 0;
    MPI_Allreduce(&ok, &allOk, 1, MPI_INT, MPI_MIN, MPI_COMM_WORLD);
    if (!allOk) return finish(1, ok ? "a rank could not take the scene" : error);
    const double shipped = since(t0) - build;

    // Units of work: one row of tiles of one frame.
    const int numFrames = cl.frames > 0 ? cl.frames : 1;
    const int rowsPerFrame = render::numTileRows(opt), numUnits = numFrames * rowsPerFrame;
    const int T = opt.tile;
    auto unitRows = [&](int unit, int& first, int& count) {
        int r = unit % rowsPerFrame;
        first = r * T;
        count = std::min(T, opt.height - first);
    };
    render::Image work;
    auto renderUnit = [&](int unit) {
        int frame = unit / rowsPerFrame;
        render::Camera cam = cl.frames > 0 ? render::turntableCamera(scene, opt, frame, numFrames) : scene.camera;
        render::renderRows(scene, opt, cam, unit % rowsPerFrame, 1, work, times, false);
    };
    const std::size_t unitBytes = 3ull * opt.width * T;
    std::vector<int> unitsDone(static_cast<std::size_t>(size), 0);
    int writeFailed = 0;

    if (rank == 0) {
        // Frames in progress and how many of their rows are still missing.
        std::vector<render::Image> frames(static_cast<std::size_t>(numFrames));
        std::vector<int> missing(static_cast<std::size_t>(numFrames), rowsPerFrame);
        auto store = [&](int unit, const unsigned char* pixels, int from) {
            int f = unit / rowsPerFrame, first, count;
            unitRows(unit, first, count);
            render::Image& img = frames[static_cast<std::size_t>(f)];
            if (img.rgb.empty()) {
                img.width = opt.width;
                img.height = opt.height;
                img.rgb.assign(3ull * opt.width * opt.height, 0);
            }
            std::memcpy(img.rgb.data() + 3ull * first * opt.width, pixels, 3ull * count * opt.width);
            ++unitsDone[static_cast<std::size_t>(from)];
            if (--missing[static_cast<std::size_t>(f)] == 0) {
                if (!render::writePng(render::framePath(cl, f), img)) {
                    std::fprintf(stderr, "vekr-render-mpi: cannot write '%s'\n", render::framePath(cl, f).c_str());
                    writeFailed = 1;
                }
                img = render::Image();
            }
        };
        int next = 0, stopped = 0;
        std::vector<unsigned char> msg(sizeof(int) + unitBytes);
        // Answers one request: stores the unit it brings, hands out the next.
        auto serve = [&](bool wait) {
            MPI_Status st;
            int flag = 1;
            if (wait)
                MPI_Probe(MPI_ANY_SOURCE, kTagRequest, MPI_COMM_WORLD, &st);
            else
                MPI_Iprobe(MPI_ANY_SOURCE, kTagRequest, MPI_COMM_WORLD, &flag, &st);
            if (!flag) return false;
            int bytes = 0;
            MPI_Get_count(&st, MPI_BYTE, &bytes);
            MPI_Recv(msg.data(), bytes, MPI_BYTE, st.MPI_SOURCE, kTagRequest, MPI_COMM_WORLD, MPI_STATUS_IGNORE);
            int unit;
            std::memcpy(&unit, msg.data(), sizeof unit);
            if (unit >= 0) store(unit, msg.data() + sizeof unit, st.MPI_SOURCE);
            int reply = next < numUnits ? next++ : -1;
            if (reply < 0) ++stopped;
            MPI_Send(&reply, 1, MPI_INT, st.MPI_SOURCE, kTagUnit, MPI_COMM_WORLD);
            return true;
        };
        std::vector<unsigned char> own(unitBytes);
        while (next < numUnits) {
            while (serve(false)) {
            }
            if (next >= numUnits) break;
            int unit = next++;
            renderUnit(unit);
            int first, count;
            unitRows(unit, first, count);
            copyRows(work, first, count, own.data());
            store(unit, own.data(), 0);
        }
        while (stopped < size - 1) serve(true);
    } else {
        std::vector<unsigned char> msg(sizeof(int) + unitBytes);
        int unit = -1, bytes = sizeof(int);
        for (;;) {
            std::memcpy(msg.data(), &unit, sizeof unit);
            MPI_Send(msg.data(), bytes, MPI_BYTE, 0, kTagRequest, MPI_COMM_WORLD);
            MPI_Recv(&unit, 1, MPI_INT, 0, kTagUnit, MPI_COMM_WORLD, MPI_STATUS_IGNORE);
            if (unit < 0) break;
            renderUnit(unit);
            int first, count;
            unitRows(unit, first, count);
            copyRows(work, first, count, msg.data() + sizeof(int));
            bytes = static_cast<int>(sizeof(int) + 3ull * count * opt.width);
        }
    }
    MPI_Bcast(&writeFailed, 1, MPI_INT, 0, MPI_COMM_WORLD);
    if (rank == 0) {
        int threads = opt.threads > 0 ? opt.threads : ownGetNumThreads();
        std::fprintf(stderr,
                     "vekr-render-mpi: %s (%d triangles) -> %s, %dx%d, %d frame%s, %.3f s on %d rank%s x %d thread%s\n",
                     cl.meshPath.c_str(), numTriangles, render::framePath(cl, 0).c_str(), opt.width, opt.height,
                     numFrames, numFrames == 1 ? "" : "s", since(t0), size, size == 1 ? "" : "s", threads,
                     threads == 1 ? "" : "s");
        if (cl.stats) {
            std::string split;
            for (int r = 0; r < size; ++r) split += (r ? ", " : "") + std::to_string(unitsDone[r]);
            std::fprintf(stderr, "  load and build %.3f s, broadcast %.3f s, render %.3f s; rows of tiles per rank: %s\n",
                         build, shipped, since(t0) - build - shipped, split.c_str());
        }
    }
    return finish(writeFailed ? 1 : 0, "");
}
