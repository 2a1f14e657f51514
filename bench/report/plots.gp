# The plots of docs/BENCHMARKS.md, from the data files that bench_report writes. bench/run calls
#   gnuplot -e "mode='transfer'; data='DIR'; scheme='https'; out='FILE.svg'" plots.gp
# with mode transfer (throughput against size), chunk (upload throughput against chunk size) or
# feed (parse time against the number of entries). Columns of every data file: x, then median,
# lowest and highest round of ours, then the same of the peer.
set terminal svg size 760,440 dynamic enhanced font 'Helvetica,12' background rgb 'white'
set output out
set grid lc rgb '#dddddd'
set key top left box opaque
set logscale x 2
set style line 1 lc rgb '#1f6fb4' lw 2 pt 7 ps 0.7
set style line 2 lc rgb '#1f6fb4' lw 2 pt 5 ps 0.7 dt 2
set style line 3 lc rgb '#d95f02' lw 2 pt 7 ps 0.7
set style line 4 lc rgb '#d95f02' lw 2 pt 5 ps 0.7 dt 2

if (mode eq 'transfer') {
  set title 'Transfers over loopback to the emulator ('.scheme.'), median and range of the rounds'
  set xlabel 'size (MiB)'
  set ylabel 'throughput (MiB/s)'
  set yrange [0:*]
  up = data.'/upload_'.scheme.'.dat'
  down = data.'/download_'.scheme.'.dat'
  plot up using 1:2:3:4 with yerrorlines ls 1 title 'upload, quire (8 MiB chunks)', \
       up using 1:5:6:7 with yerrorlines ls 2 title 'upload, curl -T', \
       down using 1:2:3:4 with yerrorlines ls 3 title 'download, quire', \
       down using 1:5:6:7 with yerrorlines ls 4 title 'download, curl -o /dev/null'
}
if (mode eq 'chunk') {
  set title 'Resumable upload of 1 GiB by chunk size ('.scheme.'), median and range of the rounds'
  set xlabel 'chunk size (KiB)'
  set ylabel 'throughput (MiB/s)'
  set yrange [0:*]
  file = data.'/chunk_'.scheme.'.dat'
  plot file using 1:2:3:4 with yerrorlines ls 1 title 'quire, ConnectionUtils::ResumableUpload', \
       file using 1:5:6:7 with yerrorlines ls 4 title 'curl -T, the whole file in one PUT'
}
if (mode eq 'feed') {
  set title 'Feed parse and delete, CPU time, median and range of the rounds'
  set logscale y 10
  set logscale x 10
  set format x '%.0f'
  set xlabel 'entries in the feed'
  set ylabel 'time (ms)'
  file = data.'/feed.dat'
  plot file using 1:2:3:4 with yerrorlines ls 1 title 'quire, XmlReader + DocsFeed::ParseFrom', \
       file using 1:5:6:7 with yerrorlines ls 3 title 'pugixml DOM parse'
}
