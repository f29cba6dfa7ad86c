// Draws the plots of an mp4stbl report with uPlot from the JSON in
// #report-data, then writes into #summary what it drew: per plot whether
// its canvas is there, its size, the points it was given and how many of
// its pixels carry a series' colour, every error met on the way, how wide
// the page is against its window and how many tables reach past the body.
(function () {
  "use strict";
  const errors = [];
  window.addEventListener("error", (event) => errors.push(String(event.message)));

  function seriesOptions(shown) {
    const options = { label: shown.label, stroke: shown.color, width: 1.5 };
    if (shown.style === "points") {
      options.paths = () => null;
      options.points = { show: true, size: 5, stroke: shown.color, fill: shown.color };
    } else if (shown.style === "steps") {
      options.paths = uPlot.paths.stepped({ align: 1 });
    } else if (shown.style === "dashed") {
      options.dash = [6, 4];
      options.spanGaps = true;
      options.points = { show: false };
    } else if (shown.style === "bars") {
      options.paths = uPlot.paths.bars({ size: [0.8, 40] });
      options.fill = shown.color;
      options.points = { show: false };
    }
    return options;
  }

  function draw(plot, box, width) {
    const title = document.createElement("h3");
    title.textContent = plot.title;
    box.appendChild(title);
    const options = {
      width: width,
      height: 280,
      scales: { x: { time: false } },
      axes: [{ label: plot.x }, { label: plot.y, size: 90 }],
      series: [{ label: plot.x }].concat(plot.series.map(seriesOptions)),
    };
    // Bars stand on 0.
    if (plot.series.some((shown) => shown.style === "bars")) {
      options.scales.y = { range: (chart, least, most) => [0, most * 1.1] };
    }
    const chart = new uPlot(options, plot.data, box);
    if (plot.note) {
      const note = document.createElement("p");
      note.className = "note";
      note.textContent = plot.note;
      box.appendChild(note);
    }
    return chart;
  }

  // Pixels whose colour is far from grey: the series, not the grid, axes or text.
  function paintedPixels(canvas) {
    const pixels = canvas.getContext("2d").getImageData(0, 0, canvas.width, canvas.height).data;
    let painted = 0;
    for (let i = 0; i < pixels.length; i += 4) {
      const high = Math.max(pixels[i], pixels[i + 1], pixels[i + 2]);
      const low = Math.min(pixels[i], pixels[i + 1], pixels[i + 2]);
      if (pixels[i + 3] > 0 && high - low > 60) painted++;
    }
    return painted;
  }

  function points(plot) {
    let count = 0;
    for (const values of plot.data.slice(1)) {
      for (const value of values) if (value !== null) count++;
    }
    return count;
  }

  function summarize(drawn) {
    const plots = drawn.map(({ plot, box }) => {
      const canvas = box.querySelector("canvas");
      return {
        id: plot.id,
        canvas: canvas !== null,
        width: canvas ? canvas.width : 0,
        height: canvas ? canvas.height : 0,
        points: points(plot),
        painted: canvas ? paintedPixels(canvas) : 0,
      };
    });
    const page = document.documentElement;
    const right = document.body.getBoundingClientRect().right;
    const tables = Array.from(document.querySelectorAll("table"));
    document.getElementById("summary").textContent = JSON.stringify({
      errors,
      plots,
      scrollWidth: page.scrollWidth,
      clientWidth: page.clientWidth,
      tablesPastBody: tables.filter((table) => table.getBoundingClientRect().right > right).length,
    });
  }

  const plots = JSON.parse(document.getElementById("report-data").textContent);
  const root = document.getElementById("plots");
  const width = Math.max(400, Math.min(1000, root.clientWidth || 1000));
  const drawn = [];
  let section = null;
  for (const plot of plots) {
    if (plot.section !== section) {
      section = plot.section;
      const heading = document.createElement("h2");
      heading.textContent = section;
      root.appendChild(heading);
    }
    const box = document.createElement("div");
    box.className = "plot";
    box.id = plot.id;
    root.appendChild(box);
    try {
      draw(plot, box, width);
    } catch (error) {
      errors.push(plot.id + ": " + error.message);
    }
    drawn.push({ plot, box });
  }
  // uPlot paints once the current task is done.
  setTimeout(() => summarize(drawn), 0);
})();
